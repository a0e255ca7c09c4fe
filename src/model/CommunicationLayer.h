#pragma once

#include "model/DeviceEvent.h"

#include <cstdint>
#include <string>

namespace com::orvex {

class IUPOSXmlAdapter;

/// Where a strategy's device events come from. The slot order is fixed.
///
/// Owner and only user: the event thread.
class CommunicationLayer {
public:
  virtual ~CommunicationLayer() = default;
  /// Blocks until one event message has arrived and returns it as `adapter` reads it.
  virtual DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) = 0;
  /// 0, or 0xFFFFFFFF when the port could not be opened.
  virtual std::uint32_t open(std::uint16_t port) = 0;
  /// The platform's result.
  virtual std::uint32_t close() = 0;
  /// The configuration key of the event port, and the port without one.
  virtual std::string getPortKey() = 0;
  virtual std::uint32_t getDefaultPort() = 0;
};

} // namespace com::orvex
