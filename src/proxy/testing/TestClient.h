#pragma once

#include "proxy/TCPServer.h"
#include "win/Handles.h"

#include <cstdint>
#include <string>

/// A device server as far as its socket goes. Every operation blocks until it is done; what fails
/// throws std::system_error.
class TestClient {
public:
  explicit TestClient(std::uint16_t port);

  /// One send, without delay, so that it travels by itself as a rule.
  void send(const std::string& text);
  /// What arrives next, of exactly this length.
  std::string receive(std::size_t length);
  /// False when nothing but the end of the connection came.
  bool receivesAnything();
  /// Ends its own direction: the server sees the connection closed.
  void halfClose();
  /// Closes with a reset instead of in order.
  void reset();
  /// Blocks until the server has closed the connection (or reset it).
  void waitUntilClosed();
  SOCKET socket() const noexcept { return socket_.get(); }

private:
  win::Socket socket_;
};
