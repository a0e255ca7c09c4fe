#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/UPOSDatagramConnector.h"
#include "model/CommunicationLayer.h"

#include <memory>

namespace com::orvex {

/// The adapter strategy's source of events: datagrams on the event port.
///
/// Owner and thread: the event thread. The destructor leaves a bound socket open.
class AdapterImpCommunicationLayer : public CommunicationLayer {
public:
  /// Does not wait before `open`, but reads an empty message.
  model::DeviceEvent receiveEvent(IUPOSXmlAdapter* adapter) override;
  /// May be retried after a failure. The event port is bound once per process: a second open
  /// returns 0 and leaves a connector without a socket.
  std::uint32_t open(std::uint16_t port) override;
  std::uint32_t close() override;
  std::string getPortKey() override;
  std::uint32_t getDefaultPort() override;

private:
  std::unique_ptr<adapter::ByteBuffer> buffer_; ///< one event message
  std::unique_ptr<adapter::UPOSDatagramConnector> connector_;
};

} // namespace com::orvex
