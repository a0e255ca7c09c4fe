#include "Connection.h"

#include "Loopback.h"

#include <stdexcept>

namespace wmi_host {

void startSockets() {
  static const int started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  static_cast<void>(started);
}

Connection::Connection(SOCKET socket) noexcept : socket_(socket) {
  DWORD timeout = 5000;
  setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&timeout),
             sizeof timeout);
  // The messages of an answer are small and must not wait for acknowledgements.
  BOOL atOnce = TRUE;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&atOnce),
             sizeof atOnce);
}

Connection::~Connection() {
  closesocket(socket_);
}

std::shared_ptr<Connection> Connection::toProvider() {
  settings::Server server = settings::publishedServer();
  if (server.port == 0) {
    return nullptr;
  }
  startSockets();
  SOCKET socket = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  auto connection = std::make_shared<Connection>(socket);
  const sockaddr_in address = test_support::loopback(static_cast<std::uint16_t>(server.port));
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return nullptr;
  }
  // The process may have ended, and another one may use its port: the greeting identifies it.
  connection->setReceiveTimeout(10000); // the machine may be busy
  std::optional<wire::Message> hello = connection->receive();
  if (!hello || hello->kind != wire::Kind::hello ||
      hello->payload != wire::fromText(server.identity)) {
    return nullptr;
  }
  connection->setReceiveTimeout(0);
  return connection;
}

bool Connection::send(wire::Kind kind, std::string_view payload) {
  std::string bytes = wire::frame(kind, payload);
  std::scoped_lock lock(sending_);
  for (std::size_t sent = 0; sent < bytes.size();) {
    int count = ::send(socket_, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0);
    if (count <= 0) {
      close();
      return false;
    }
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<wire::Message> Connection::receive() {
  try {
    std::string header(wire::kHeaderBytes, '\0');
    wire::Message message;
    if (!read(header.data(), header.size())) {
      return std::nullopt;
    }
    message.payload.resize(wire::readHeader(header, message.kind));
    return read(message.payload.data(), message.payload.size()) ? std::optional(message)
                                                                : std::nullopt;
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

bool Connection::read(char* data, std::size_t size) {
  while (size > 0) {
    int count = recv(socket_, data, static_cast<int>(size), 0);
    if (count <= 0) {
      return false;
    }
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

void Connection::close() noexcept {
  shutdown(socket_, SD_BOTH);
}

void Connection::setReceiveTimeout(DWORD milliseconds) {
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&milliseconds),
             sizeof milliseconds);
}

} // namespace wmi_host
