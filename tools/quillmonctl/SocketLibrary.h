#pragma once

#include <winsock2.h>

namespace ctl {

/// Winsock for as long as it lives.
class SocketLibrary {
public:
  SocketLibrary() {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  }
  ~SocketLibrary() { WSACleanup(); }
  SocketLibrary(const SocketLibrary&) = delete;
  SocketLibrary& operator=(const SocketLibrary&) = delete;
};

} // namespace ctl
