#pragma once

#include <winsock2.h>
#include <Loopback.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace adapter_testing {

using test_support::loopback;

/// Starts Winsock for one scope.
class StartedWinsock {
public:
  StartedWinsock() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  }
  StartedWinsock(const StartedWinsock&) = delete;
  StartedWinsock& operator=(const StartedWinsock&) = delete;
  ~StartedWinsock() { WSACleanup(); }
};

/// Owns a socket.
class TestSocket {
public:
  explicit TestSocket(SOCKET socket) : socket_(socket) {}
  TestSocket(const TestSocket&) = delete;
  TestSocket& operator=(const TestSocket&) = delete;
  ~TestSocket() { close(); }

  void close() {
    if (socket_ != INVALID_SOCKET) {
      closesocket(std::exchange(socket_, INVALID_SOCKET));
    }
  }
  SOCKET get() const { return socket_; }

private:
  SOCKET socket_;
};

inline std::uint16_t portOf(SOCKET socket) {
  sockaddr_in address{};
  int size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

/// A socket bound to a free port of the loopback. A stream socket refuses connections until it
/// listens, and reserves the port.
inline SOCKET boundSocket(int type) {
  const SOCKET created = socket(AF_INET, type, 0);
  const sockaddr_in anyPort = loopback(0);
  bind(created, reinterpret_cast<const sockaddr*>(&anyPort), sizeof anyPort);
  return created;
}

inline void sendText(SOCKET socket, const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const int taken = send(socket, text.data() + sent, static_cast<int>(text.size() - sent), 0);
    if (taken <= 0) {
      return;
    }
    sent += static_cast<std::size_t>(taken);
  }
}

/// Receives up to and including `mark`, or until the peer closes.
inline std::string receiveUntil(SOCKET socket, char mark) {
  std::string received;
  char byte = 0;
  while (recv(socket, &byte, 1, 0) == 1) {
    received += byte;
    if (byte == mark) {
      break;
    }
  }
  return received;
}

inline std::string receiveRest(SOCKET socket) {
  std::string received;
  char bytes[4096];
  for (int count = 0; (count = recv(socket, bytes, sizeof bytes, 0)) > 0;) {
    received.append(bytes, static_cast<std::size_t>(count));
  }
  return received;
}

/// A device server for tests: serves connections one after another on its own thread. The
/// destructor stops and joins the thread; it waits for the current conversation to end.
class TestPeer {
public:
  using Conversation = std::function<void(SOCKET connection)>;

  explicit TestPeer(Conversation conversation)
      : conversation_(std::move(conversation)), listener_(boundSocket(SOCK_STREAM)),
        port_(portOf(listener_.get())) {
    listen(listener_.get(), SOMAXCONN);
    thread_ = std::thread([this] { serve(); });
  }
  TestPeer(const TestPeer&) = delete;
  TestPeer& operator=(const TestPeer&) = delete;
  ~TestPeer() { stop(); }

  void stop() {
    if (thread_.joinable()) {
      stopping_ = true;
      const TestSocket wakeUp(socket(AF_INET, SOCK_STREAM, 0));
      const sockaddr_in self = loopback(port_);
      connect(wakeUp.get(), reinterpret_cast<const sockaddr*>(&self), sizeof self);
      thread_.join();
    }
  }

  std::uint16_t port() const { return port_; }
  int connections() const { return connections_; }

private:
  void serve() {
    for (;;) {
      const TestSocket connection(accept(listener_.get(), nullptr, nullptr));
      if (stopping_ || connection.get() == INVALID_SOCKET) {
        return;
      }
      ++connections_;
      conversation_(connection.get());
    }
  }

  Conversation conversation_;
  TestSocket listener_;
  std::uint16_t port_;
  std::atomic<bool> stopping_ = false;
  std::atomic<int> connections_ = 0;
  std::thread thread_;
};

} // namespace adapter_testing
