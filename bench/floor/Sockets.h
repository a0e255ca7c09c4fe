#pragma once

#include "win/Handles.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// The product's socket calls alone: the same bytes in the same portions.
namespace bench::floor {

/// A socket bound to that port of 127.0.0.1; SOCK_STREAM ones listen.
win::Socket bindTo(std::uint16_t port, int type);

/// Sends one request over a connection of its own, framed by ESC and BS. Returns the answer without
/// its frame, empty if there is no server, and counts the receives of at most 1024 bytes each.
std::string exchange(std::uint16_t port, const std::string& request, std::size_t& receives);

} // namespace bench::floor
