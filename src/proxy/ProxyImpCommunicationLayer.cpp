#include "proxy/ProxyImpCommunicationLayer.h"

#include "model/IUPOSXmlAdapter.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/Poller.h"
#include "proxy/TCPServer.h"
#include "trace/UPOSLog.h"
#include "win/Configuration.h"

using model::DeviceEvent;
using proxy::CIMDeviceUtil;
using proxy::TCPServer;
using trace::UPOSLog;

namespace com::orvex {

namespace {

/// Releases a taken document, also after an exception; otherwise every later one would wait.
class ReleaseGuard {
public:
  explicit ReleaseGuard(TCPServer& server) noexcept : server_(server) {}
  ReleaseGuard(const ReleaseGuard&) = delete;
  ReleaseGuard& operator=(const ReleaseGuard&) = delete;
  ~ReleaseGuard() { server_.release(); }

private:
  TCPServer& server_;
};

} // namespace

DeviceEvent ProxyImpCommunicationLayer::receiveEvent(IUPOSXmlAdapter* adapter) {
  TCPServer& server = TCPServer::instance();
  const std::string document = server.take();
  DeviceEvent event;
  {
    const ReleaseGuard guard(server);
    UPOSLog::trace("Event received: %s", document);
    event = adapter->fromXMLEvent(document);
  }
  return CIMDeviceUtil::processEvent(event);
}

std::uint32_t ProxyImpCommunicationLayer::open(std::uint16_t port) {
  const std::uint32_t result = TCPServer::instance().startListening(port);
  Poller::instance();
  return result;
}

std::uint32_t ProxyImpCommunicationLayer::close() {
  return static_cast<std::uint32_t>(TCPServer::instance().stop());
}

std::string ProxyImpCommunicationLayer::getPortKey() {
  return configuration::kEventPortKey;
}

std::uint32_t ProxyImpCommunicationLayer::getDefaultPort() {
  return configuration::kDefaultEventPort;
}

} // namespace com::orvex
