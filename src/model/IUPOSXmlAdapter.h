#pragma once

#include "model/DeviceEvent.h"
#include "model/InstanceList.h"

#include <cstdint>
#include <string>

namespace com::orvex {

/// Turns requests into documents, sends them, and reads answers and events: one strategy's way of
/// speaking with the device server. The slot order is fixed.
///
/// Owner: whoever got it from the factory. Threads: one at a time.
/// Errors: statuses and trace lines; no exception of the XML library leaves it.
class IUPOSXmlAdapter {
public:
  virtual ~IUPOSXmlAdapter() = default;
  /// Writes the request document into `out`; 0 when it was built.
  virtual std::uint32_t toXML(std::string className, std::string type, std::string cmd,
                              std::string id, std::string& out) = 0;
  /// Reads an answer; 0 when it was understood (1: an error answer, 0xFFFFFFFF: unreadable).
  virtual std::uint32_t fromXML(std::string response) = 0;
  /// Exchanges a request for its answer; empty when nothing was exchanged.
  virtual std::string sendRequest(std::string request) = 0;
  /// A copy of what the last fromXML left.
  virtual InstanceList getInstances() = 0;
  virtual DeviceEvent fromXMLEvent(std::string message) = 0;
};

} // namespace com::orvex
