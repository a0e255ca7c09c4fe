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

/// A local TCP connection between a client's and a provider's process. Any thread may call send()
/// and close(), only one at a time receive(). close() ends pending calls.
class Connection {
public:
  explicit Connection(SOCKET socket) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  /// To the registered provider's process; null if there is none.
  static std::shared_ptr<Connection> toProvider();

  /// False if the connection is closed or the peer does not receive within five seconds.
  bool send(wire::Kind kind, std::string_view payload);
  /// Nothing if the connection is closed or the data is not a message.
  std::optional<wire::Message> receive();
  void close() noexcept;

private:
  bool read(char* data, std::size_t size);
  void setReceiveTimeout(DWORD milliseconds);

  SOCKET socket_;
  PlatformLock sending_;
};

/// Starts Winsock until the process ends.
void startSockets();

} // namespace wmi_host
