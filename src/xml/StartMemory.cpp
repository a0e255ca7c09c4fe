#include "xml/StartMemory.h"

#include <xercesc/util/OutOfMemoryException.hpp>

#include <functional>
#include <new>

namespace xml {

StartMemory::Area::Area(StartMemory& memory) noexcept : memory_(memory) {
  memory_.usesArea_ = true;
  if (memory_.blocks_ == 0) {
    memory_.used_ = 0;
  }
}

StartMemory::Area::~Area() {
  memory_.usesArea_ = false;
}

void* StartMemory::allocate(XMLSize_t size) {
  if (usesArea_) {
    if (void* const block = allocateInArea(size)) {
      return block;
    }
  }
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    throw xercesc::OutOfMemoryException();
  }
}

void StartMemory::deallocate(void* block) {
  if (isInArea(block)) {
    --blocks_; // the area is reused once all blocks have been returned
  } else {
    ::operator delete(block);
  }
}

void* StartMemory::allocateInArea(std::size_t size) noexcept {
  constexpr std::size_t kAlignment = alignof(std::max_align_t);
  if (size > kAreaSize - used_) {
    return nullptr;
  }
  void* const block = area_ + used_;
  used_ += (size + kAlignment - 1) / kAlignment * kAlignment; // kAreaSize is a multiple as well
  ++blocks_;
  return block;
}

bool StartMemory::isInArea(const void* block) const noexcept {
  const std::less<> isBefore;
  return !isBefore(block, area_) && isBefore(block, area_ + kAreaSize);
}

} // namespace xml
