#pragma once

#include "adapter/UPOSXMLAdapter.h"

#include <cstdint>
#include <string>

namespace com::orvex {

/// The proxy strategy's XML adapter: answers requests from the device cache; asks the device
/// servers for an update only when the poller is due.
///
/// Owner and threads as UPOSXMLAdapter. Only fromXMLEvent takes the XML lock.
class ProxyImpXmlAdapter : public UPOSXMLAdapter {
public:
  /// Writes the fixed update request into `out`, regardless of the arguments, and fills the
  /// instance list from the cache: the devices of `className`; for the command "getInstance" only
  /// the one whose id is `id`. Always returns 0.
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override;
  /// Does nothing; returns 0.
  std::uint32_t fromXML(std::string response) override;
  /// Sends `request` to every connected device server if the poller is due. Does not wait for an
  /// answer; always returns empty text.
  std::string sendRequest(std::string request) override;
  /// As the base class; also sets the provider and all fields, even if the event is not to be
  /// published. An unreadable document leaves both empty, a failed reading what it had read.
  model::DeviceEvent fromXMLEvent(std::string message) override;

private:
  void updateInstances(const std::string& className, const std::string& cmd, const std::string& id);
};

} // namespace com::orvex
