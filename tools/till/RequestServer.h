#pragma once

#include "till/Till.h"

#include <asio.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace till {

/// The request port on this machine: each connection brings one framed request and gets its answer,
/// any number of them at once up to a limit. A request may have 1 MiB, framing and noise included.
/// Runs on the context's one thread; the till and the log must outlive the context's run.
class RequestServer {
public:
  static constexpr std::size_t kLargestRequest = std::size_t{1024} * 1024;
  static constexpr std::size_t kMostConnections = 256;

  /// `port` 0 takes any free one. Throws std::system_error, when the port is in use for example.
  RequestServer(asio::io_context& context, std::uint16_t port,
                std::chrono::milliseconds requestTimeout, Till& till, Log& log);

  std::uint16_t port() const { return port_; }

private:
  class Session;

  void accept();

  asio::ip::tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  std::chrono::milliseconds requestTimeout_;
  Till& till_;
  Log& log_;
  std::uint16_t port_ = 0;
  // Shared with the sessions: one may be destroyed with the context, after this object.
  std::shared_ptr<std::size_t> connections_ = std::make_shared<std::size_t>(0);
};

} // namespace till
