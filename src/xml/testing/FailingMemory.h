#pragma once

#include <cstddef>

/// Makes the test program's operator new fail on demand. One thread at a time.
namespace failing_memory {

/// Number of calls of operator new since the program started.
std::size_t allocations();
/// Lets `granted` more allocations succeed; the next one throws std::bad_alloc, once.
void failAfter(std::size_t granted);
/// Cancels a pending failure; true when it has occurred.
bool disarm();

/// Disables the leak check while it lives: the XML library does not clean up when it runs out of
/// memory.
class LeaksAllowed {
public:
  LeaksAllowed();
  LeaksAllowed(const LeaksAllowed&) = delete;
  LeaksAllowed& operator=(const LeaksAllowed&) = delete;
  ~LeaksAllowed();
};

} // namespace failing_memory
