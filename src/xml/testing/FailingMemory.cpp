#include "xml/testing/FailingMemory.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUILLMON_LEAK_CHECK 1
#include <sanitizer/lsan_interface.h>
#endif
#endif

namespace {

constexpr std::int64_t kNotArmed = -1;

std::atomic<std::size_t> count = 0;
std::atomic<std::int64_t> granted = kNotArmed;
std::atomic<bool> failed = false;

void* allocate(std::size_t size) {
  ++count;
  if (granted != kNotArmed && granted-- == 0) {
    failed = true;
    throw std::bad_alloc();
  }
  void* memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

} // namespace

namespace failing_memory {

std::size_t allocations() {
  return count;
}

void failAfter(std::size_t more) {
  failed = false;
  granted = static_cast<std::int64_t>(more);
}

bool disarm() {
  granted = kNotArmed;
  return failed;
}

#ifdef QUILLMON_LEAK_CHECK
LeaksAllowed::LeaksAllowed() {
  __lsan_disable();
}
LeaksAllowed::~LeaksAllowed() {
  __lsan_enable();
}
#else
LeaksAllowed::LeaksAllowed() = default;
LeaksAllowed::~LeaksAllowed() = default;
#endif

} // namespace failing_memory

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
