#pragma once

#include "model/DeviceEvent.h"

#include <cstdint>
#include <string>

namespace com::orvex {

class IUPOSXmlAdapter;

/// A strategy's source of device events.
///
/// Owner and thread: the event thread. Errors: std::bad_alloc; an event that cannot be read is
/// returned as one that is not to be published.
class CommunicationLayer {
public:
  virtual ~CommunicationLayer() = default;
  /// Blocks until an event message has arrived; returns it as read by `adapter`.
  virtual model::DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) = 0;
  /// 0, or 0xFFFFFFFF when the port could not be opened.
  virtual std::uint32_t open(std::uint16_t port) = 0;
  /// The result of closing the socket.
  virtual std::uint32_t close() = 0;
  /// The configuration key of the event port, and its default.
  virtual std::string getPortKey() = 0;
  virtual std::uint32_t getDefaultPort() = 0;
};

} // namespace com::orvex
