#pragma once

#include "adapter/UPOSXMLAdapter.h"

#include <cstdint>
#include <string>

namespace com::orvex {

/// The proxy strategy's XML adapter: requests are answered from the device cache, and the device
/// servers are only asked to send their devices again when the poller says so.
///
/// Owner and threads as UPOSXMLAdapter. An adapter may wait for the XML lock in fromXMLEvent only.
class ProxyImpXmlAdapter : public UPOSXMLAdapter {
public:
  /// Writes the fixed update request into `out`, whatever the arguments, and fills the instance
  /// list from the cache: the devices of `className`; for the command "getInstance" only those
  /// whose id is `id`. Always 0.
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override;
  /// Nothing to read: 0, and the instance list stays.
  std::uint32_t fromXML(std::string response) override;
  /// Sends `request` to every connected device server if it is time; never waits for an answer, so
  /// always empty.
  std::string sendRequest(std::string request) override;
  /// As the base class, with the provider and all fields besides, also of an event that is not to
  /// be published. An unreadable document has neither.
  DeviceEvent fromXMLEvent(std::string message) override;

private:
  void updateInstances(const std::string& className, const std::string& cmd, const std::string& id);
};

} // namespace com::orvex
