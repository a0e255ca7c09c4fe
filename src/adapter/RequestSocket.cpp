#include "adapter/RequestSocket.h"

#include "adapter/ByteBuffer.h"
#include "adapter/RequestBackOff.h"
#include "adapter/UPOSConnector.h"
#include "trace/UPOSLog.h"
#include "win/Configuration.h"

using trace::UPOSLog;

namespace adapter {

namespace {

/// Closes its socket on every path. By design also a socket that was never created: the failing
/// close is traced, by which support recognises that case.
class SocketCloser {
public:
  explicit SocketCloser(SOCKET socket) noexcept : socket_(socket) {}
  SocketCloser(const SocketCloser&) = delete;
  SocketCloser& operator=(const SocketCloser&) = delete;
  ~SocketCloser() {
    if (closesocket(socket_) != 0) {
      UPOSLog::trace("<<XMLAdapter>>: closesocket() failed (Reason: %d)", WSAGetLastError());
    }
  }
  SOCKET get() const noexcept { return socket_; }

private:
  SOCKET socket_;
};

sockaddr_in serverAddress(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  address.sin_port = htons(port);
  return address;
}

std::string sendAndReceive(SOCKET socket, const std::string& request) {
  UPOSConnector connector;
  ByteBuffer buffer(1024, 1.5F);
  UPOSConnector::streamReady = 1;
  connector.socket = socket;
  buffer.appendChar(kFrameBegin);
  buffer.appendString(request.c_str());
  buffer.appendChar(kFrameEnd);
  // One send, unchecked: a short send or a closed connection shows in the answer. After a refused
  // send both sides may wait for long.
  send(socket, buffer.text(), static_cast<int>(buffer.size()), 0);
  connector.ready = 1;
  buffer.clear();
  connector.Receive(&buffer);
  std::string response = buffer.text();
  UPOSLog::trace("<<XMLAdapter>>: Receiving data");
  UPOSLog::trace(response); // as the format; safe, since the formatter reads no missing argument
  return response;
}

} // namespace

std::string exchangeRequest(const std::string& request) {
  if (requestBackOff.serverOffline != 0) {
    UPOSLog::trace("<<XMLAdapter>>: Just recently Java failed, I will skip it for now...");
    return {};
  }
  WSADATA winsock;
  WSAStartup(MAKEWORD(1, 1), &winsock); // by design once per exchange and never cleaned up
  const auto port = static_cast<std::uint16_t>(
      configuration::readInt("upos.requestSocket.Port", configuration::kDefaultRequestPort));
  configureTimers();
  UPOSLog::trace("<<XMLAdapter>>: Creating socket");
  const sockaddr_in server = serverAddress(port);
  const SocketCloser connection(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  if (connection.get() == INVALID_SOCKET) {
    // Kept: despite the message, this failure does not start the back-off.
    UPOSLog::trace("<<XMLAdapter>>: Unable to create socket! aborting (Reason: %d)... Will reject "
                   "requests for the next %d milliseconds...",
                   WSAGetLastError(), requestBackOff.retryTimeout.load());
    return {};
  }
  if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    UPOSLog::trace("<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: %d)... Will "
                   "reject requests for the next %d milliseconds...",
                   WSAGetLastError(), requestBackOff.retryTimeout.load());
    signalServerIsOfflineFor5Seconds();
    return {};
  }
  return sendAndReceive(connection.get(), request);
}

} // namespace adapter
