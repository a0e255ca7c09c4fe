#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// What every fuzz target shares. A target is one file: LLVMFuzzerTestOneInput turns bytes into
/// what its part of the core takes and states, with `require`, what must hold for any bytes.
namespace fuzzing {

/// Ends the run with `what` unless it holds; the fuzzer then keeps the input.
void require(bool holds, const char* what);

/// The input as text.
inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The text before the first `separator`, which is cut off `rest` with it; all of it without one.
std::string_view cutFront(std::string_view& rest, char separator);

/// `stream` in pieces whose lengths (1 to 1024) the bytes of `lengths` give, over and over; whole
/// pieces of 1024 bytes without any.
std::vector<std::string_view> piecesOf(std::string_view stream, std::string_view lengths);

} // namespace fuzzing
