#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/UPOSDatagramConnector.h"
#include "model/CommunicationLayer.h"

#include <memory>

namespace com::orvex {

/// The adapter strategy's events: datagrams on the event port.
///
/// Owner and only user: the event thread. Deleting it leaves a bound socket open.
class AdapterImpCommunicationLayer : public CommunicationLayer {
public:
  /// Before `open` there is nothing to wait for: an empty message is read then.
  DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) override;
  /// May be tried again after a failure. The event port is bound once per process, so opening it
  /// a second time gives 0 and a connector without a socket.
  std::uint32_t open(std::uint16_t port) override;
  std::uint32_t close() override;
  std::string getPortKey() override;
  std::uint32_t getDefaultPort() override;

private:
  std::unique_ptr<ByteBuffer> buffer_;               ///< one event message
  std::unique_ptr<UPOSDatagramConnector> connector_; ///< goes before the buffer
};

} // namespace com::orvex
