#pragma once

#include "adapter/testing/TestPeer.h"

#include <winsock2.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace adapter_testing {

/// Sends each text as one datagram to the loopback, in order.
inline void sendDatagrams(std::uint16_t port, std::initializer_list<std::string> datagrams) {
  const TestSocket sender(socket(AF_INET, SOCK_DGRAM, 0));
  const sockaddr_in receiver = loopback(port);
  for (const std::string& datagram : datagrams) {
    sendto(sender.get(), datagram.data(), static_cast<int>(datagram.size()), 0,
           reinterpret_cast<const sockaddr*>(&receiver), sizeof receiver);
  }
}

/// A datagram port that was free a moment ago.
inline std::uint16_t freeDatagramPort() {
  return portOf(TestSocket(boundSocket(SOCK_DGRAM)).get());
}

} // namespace adapter_testing
