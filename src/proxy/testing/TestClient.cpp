#include "proxy/testing/TestClient.h"

#include <Loopback.h>

#include <system_error>

using proxy::TCPServer;

namespace proxy_testing {

namespace {

void require(bool done, const char* operation) {
  if (!done) {
    const int error = WSAGetLastError();
    throw std::system_error(error, std::system_category(),
                            std::string(operation) + " " + std::to_string(error));
  }
}

} // namespace

TestClient::TestClient(std::uint16_t port) {
  static const TCPServer::Winsock winsock; // shared: Wine counts the starts without a lock
  socket_.reset(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const sockaddr_in address = test_support::loopback(port);
  require(connect(socket(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "connect");
  const int noDelay = 1;
  require(setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&noDelay),
                     sizeof noDelay) == 0,
          "setsockopt");
}

void TestClient::send(const std::string& text) {
  require(::send(socket(), text.data(), static_cast<int>(text.size()), 0) ==
              static_cast<int>(text.size()),
          "send");
}

std::string TestClient::receive(std::size_t length) {
  std::string received(length, '\0');
  for (std::size_t count = 0; count < length;) {
    const int more = recv(socket(), received.data() + count, static_cast<int>(length - count), 0);
    require(more > 0, "recv");
    count += static_cast<std::size_t>(more);
  }
  return received;
}

bool TestClient::receivesAnything() {
  char byte;
  return recv(socket(), &byte, 1, 0) > 0;
}

void TestClient::halfClose() {
  require(shutdown(socket(), SD_SEND) == 0, "shutdown");
}

void TestClient::reset() {
  const linger atOnce{1, 0};
  require(setsockopt(socket(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&atOnce),
                     sizeof atOnce) == 0,
          "setsockopt");
  socket_.reset();
}

void TestClient::waitUntilClosed() {
  while (receivesAnything()) {
  }
}

} // namespace proxy_testing
