#include "Sockets.h"

#include "Loopback.h"

#include <cstring>

namespace bench::floor {

using test_support::loopback;

win::Socket bindTo(std::uint16_t port, int type) {
  win::Socket bound(socket(AF_INET, type, 0));
  const sockaddr_in address = loopback(port);
  bind(bound.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (type == SOCK_STREAM) {
    listen(bound.get(), SOMAXCONN);
  }
  return bound;
}

std::string exchange(std::uint16_t port, const std::string& request, std::size_t& receives) {
  const win::Socket connection(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const sockaddr_in address = loopback(port);
  if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  const std::string framed = '\x1B' + request + '\x08';
  send(connection.get(), framed.data(), static_cast<int>(framed.size()), 0);
  std::string answer;
  char piece[1024];
  for (;;) {
    const int count = recv(connection.get(), piece, sizeof piece, 0);
    ++receives;
    if (count <= 0) {
      return {};
    }
    const char* const begin = answer.empty() ? piece + 1 : piece; // behind the ESC
    const auto* const mark =
        static_cast<const char*>(std::memchr(piece, '\x08', static_cast<std::size_t>(count)));
    answer.append(begin, mark != nullptr ? mark : piece + count);
    if (mark != nullptr) {
      return answer;
    }
  }
}

} // namespace bench::floor
