#include "xml/StartMemory.h"
#include "xml/testing/FailingMemory.h"

#include <gtest/gtest.h>
#include <xercesc/util/OutOfMemoryException.hpp>

#include <cstdint>
#include <cstring>
#include <vector>

using xml::StartMemory;

namespace {

constexpr std::size_t kMoreThanTheArea = 1'000'000;

TEST(StartMemory, BlocksOfTheAreaUseNoHeap) {
  StartMemory memory;
  const StartMemory::Area area(memory);
  const std::size_t before = failing_memory::allocations();
  void* const block = memory.allocate(100);
  EXPECT_EQ(failing_memory::allocations(), before);
  memory.deallocate(block);
}

TEST(StartMemory, OutsideAStartBlocksComeFromTheHeap) {
  StartMemory memory;
  const std::size_t before = failing_memory::allocations();
  memory.deallocate(memory.allocate(100));
  EXPECT_EQ(failing_memory::allocations(), before + 1);
}

TEST(StartMemory, BlocksDoNotOverlapAndAreAligned) {
  StartMemory memory;
  const StartMemory::Area area(memory);
  std::vector<char*> blocks;
  for (std::size_t size = 0; size < 100; ++size) {
    blocks.push_back(static_cast<char*>(memory.allocate(size)));
    std::memset(blocks.back(), static_cast<int>(size), size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % alignof(std::max_align_t), 0U);
  }
  for (std::size_t size = 0; size < 100; ++size) {
    EXPECT_EQ(std::vector<char>(blocks[size], blocks[size] + size),
              std::vector<char>(size, static_cast<char>(size)));
    memory.deallocate(blocks[size]);
  }
}

TEST(StartMemory, BlocksThatDoNotFitComeFromTheHeap) {
  StartMemory memory;
  const StartMemory::Area area(memory);
  const std::size_t before = failing_memory::allocations();
  std::vector<void*> blocks;
  for (std::size_t taken = 0; taken < kMoreThanTheArea; taken += 1000) {
    blocks.push_back(memory.allocate(1000));
  }
  EXPECT_GT(failing_memory::allocations(), before + 1);
  for (void* block : blocks) {
    memory.deallocate(block);
  }
  memory.deallocate(memory.allocate(kMoreThanTheArea));
}

TEST(StartMemory, TheAreaIsReusedOnceAllBlocksAreFreed) {
  StartMemory memory;
  void* kept = nullptr;
  const auto first = [&] {
    const StartMemory::Area area(memory);
    return memory.allocate(100);
  };
  void* const once = first();
  kept = first();
  EXPECT_NE(kept, once) << "not while a block is out";
  memory.deallocate(once);
  memory.deallocate(kept);
  EXPECT_EQ(first(), once);
  memory.deallocate(once);
}

TEST(StartMemory, OutOfMemoryThrowsTheLibrarysException) {
  StartMemory memory;
  failing_memory::failAfter(0);
  EXPECT_THROW(memory.allocate(100), xercesc::OutOfMemoryException);
  EXPECT_TRUE(failing_memory::disarm());
}

TEST(StartMemory, FreeingNullDoesNothing) {
  StartMemory memory;
  memory.deallocate(nullptr);
}

} // namespace
