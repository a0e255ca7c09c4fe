#pragma once

#include "model/DeviceEvent.h"
#include "model/InstanceList.h"

#include <cstdint>
#include <string>

namespace com::orvex {

/// A strategy's conversation with the device server: builds and sends requests, reads answers and
/// events.
///
/// Owner: the caller of the factory. Threads: one at a time.
/// Errors: statuses and trace lines; exceptions of the XML library never pass.
class IUPOSXmlAdapter {
public:
  virtual ~IUPOSXmlAdapter() = default;
  /// Writes the request document into `out`; 0 on success. `type` names the root element, `cmd` is
  /// the text of its element "type"; `id` is empty for a list.
  virtual std::uint32_t toXML(std::string className, std::string type, std::string cmd,
                              std::string id, std::string& out) = 0;
  /// Reads an answer; 0 on success, 1 for an error answer, 0xFFFFFFFF for an unreadable one.
  virtual std::uint32_t fromXML(std::string response) = 0;
  /// Sends a request and returns the answer; empty when there is none.
  virtual std::string sendRequest(std::string request) = 0;
  /// A copy of the instances read so far.
  virtual model::InstanceList getInstances() = 0;
  /// Reads an event; its type is "NA" if it is not to be published.
  virtual model::DeviceEvent fromXMLEvent(std::string message) = 0;
};

} // namespace com::orvex
