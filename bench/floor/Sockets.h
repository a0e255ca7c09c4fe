#pragma once

#include "win/Handles.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// The product's sockets with nothing around them: the same bytes in the same pieces.
namespace bench::floor {

/// A socket bound to that port of 127.0.0.1; SOCK_STREAM ones listen.
win::Socket bindTo(std::uint16_t port, int type);

/// One request over a connection of its own: ESC, the request, BS; returns what stands between the
/// answer's marks, and counts the receives. Empty without a server. As the design has it, 1024
/// bytes a receive at most.
std::string exchange(std::uint16_t port, const std::string& request, std::size_t& receives);

} // namespace bench::floor
