#include "adapter/AdapterImpCommunicationLayer.h"

#include "model/IUPOSXmlAdapter.h"
#include "win/Configuration.h"

using adapter::ByteBuffer;
using adapter::UPOSDatagramConnector;
using model::DeviceEvent;

namespace com::orvex {

std::uint32_t AdapterImpCommunicationLayer::open(std::uint16_t port) {
  buffer_ = std::make_unique<ByteBuffer>(1024, 1.5F);
  connector_ = std::make_unique<UPOSDatagramConnector>();
  return connector_->Bind(port);
}

DeviceEvent AdapterImpCommunicationLayer::receiveEvent(IUPOSXmlAdapter* adapter) {
  if (connector_ == nullptr) {
    return adapter->fromXMLEvent({});
  }
  buffer_->clear();
  connector_->Receive(buffer_.get());
  return adapter->fromXMLEvent(buffer_->text());
}

std::uint32_t AdapterImpCommunicationLayer::close() {
  return connector_ != nullptr ? static_cast<std::uint32_t>(connector_->Close()) : 0;
}

std::string AdapterImpCommunicationLayer::getPortKey() {
  return configuration::kEventPortKey;
}

std::uint32_t AdapterImpCommunicationLayer::getDefaultPort() {
  return configuration::kDefaultEventPort;
}

} // namespace com::orvex
