#pragma once

#include <winsock2.h>

#include <cstdint>

namespace test_support {

/// The address 127.0.0.1 with that port; 0 lets bind() choose one.
inline sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

} // namespace test_support
