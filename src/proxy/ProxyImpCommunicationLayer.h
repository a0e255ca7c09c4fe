#pragma once

#include "model/CommunicationLayer.h"

namespace com::orvex {

/// The proxy strategy's source of events: documents from the event socket server, applied to the
/// device cache before they are returned.
///
/// Owner and thread: the event thread. Stateless: the server is a process-wide singleton.
class ProxyImpCommunicationLayer : public CommunicationLayer {
public:
  /// The event's type is "NA" if it is not to be published.
  model::DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) override;
  /// Starts the server, then the poller. May be retried after a failure.
  std::uint32_t open(std::uint16_t port) override;
  std::uint32_t close() override;
  std::string getPortKey() override;
  std::uint32_t getDefaultPort() override;
};

} // namespace com::orvex
