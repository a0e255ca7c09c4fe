#pragma once

#include "PlatformLock.h"
#include "Settings.h"
#include "Wire.h"

#include <winsock2.h>
#include <windows.h>

#include <memory>
#include <optional>
#include <string>

namespace wmi_host {

/// One TCP connection on this machine between a client's and a provider's process. send() may be
/// called by several threads, receive() by one at a time, close() by any: it ends the others'
/// waits.
class Connection {
public:
  explicit Connection(SOCKET socket) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  /// To the process that published itself; null if there is none (any more).
  static std::shared_ptr<Connection> toProvider();

  /// False once the peer is gone or does not take the bytes within five seconds.
  bool send(wire::Kind kind, std::string_view payload);
  /// Nothing once the peer is gone or has sent something that is no message.
  std::optional<wire::Message> receive();
  void close() noexcept;

private:
  bool read(char* data, std::size_t size);
  void setReceiveTimeout(DWORD milliseconds);

  SOCKET socket_;
  PlatformLock sending_;
};

/// Winsock for the life of the process.
void startSockets();

} // namespace wmi_host
