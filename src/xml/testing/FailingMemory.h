#pragma once

#include <cstddef>

/// The test program's operator new, made to fail on demand. One thread at a time.
namespace failing_memory {

/// Calls of operator new since the program began.
std::size_t allocations();
/// The allocation after `granted` more fails with std::bad_alloc, once, unless disarmed before.
void failAfter(std::size_t granted);
/// True when the armed failure came to pass.
bool disarm();

/// While it lives, memory that is lost does not count as a leak: the XML library by design does not
/// clean up after itself when memory ran out.
class LeaksAllowed {
public:
  LeaksAllowed();
  LeaksAllowed(const LeaksAllowed&) = delete;
  LeaksAllowed& operator=(const LeaksAllowed&) = delete;
  ~LeaksAllowed();
};

} // namespace failing_memory
