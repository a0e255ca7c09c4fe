#pragma once

#include "model/CommunicationLayer.h"

namespace com::orvex {

/// The proxy strategy's events: documents from the event socket server, applied to the device
/// cache before they are returned.
///
/// Owner and only user: the event thread. The server is the process's, so the layer has no state.
class ProxyImpCommunicationLayer : public CommunicationLayer {
public:
  /// The type of the event is "NA" when it is not to be published.
  DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) override;
  /// Starts the server, then the poller. May be tried again after a failure.
  std::uint32_t open(std::uint16_t port) override;
  std::uint32_t close() override;
  std::string getPortKey() override;
  std::uint32_t getDefaultPort() override;
};

} // namespace com::orvex
