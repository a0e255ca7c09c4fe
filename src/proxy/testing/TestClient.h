#pragma once

#include "proxy/TCPServer.h"
#include "win/Handles.h"

#include <cstdint>
#include <string>

namespace proxy_testing {

/// A device server's connection. Every operation blocks until it is complete and throws
/// std::system_error on failure.
class TestClient {
public:
  explicit TestClient(std::uint16_t port);

  /// One send without delay (TCP_NODELAY).
  void send(const std::string& text);
  /// Receives exactly `length` bytes.
  std::string receive(std::size_t length);
  /// False when the connection ends before a byte arrives.
  bool receivesAnything();
  /// Shuts down sending: the server sees the connection closed.
  void halfClose();
  /// Closes with a reset instead of an orderly shutdown.
  void reset();
  /// Blocks until the server has closed or reset the connection.
  void waitUntilClosed();
  SOCKET socket() const noexcept { return socket_.get(); }

private:
  win::Socket socket_;
};

} // namespace proxy_testing
