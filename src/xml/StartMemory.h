#pragma once

#include <xercesc/framework/MemoryManager.hpp>

#include <atomic>
#include <cstddef>

namespace xml {

/// The XML library's memory manager. A start of the library allocates about 1,500 small blocks,
/// which its end frees. These blocks come from a static area: a start is then cheap, and it cannot
/// run out of memory half-way, after which the library could neither be ended nor started again.
/// All other blocks, and those that do not fit into the area, come from the heap.
///
/// Owner: XmlLibrary; lives until the process ends. Threads: any; while an `Area` exists, only the
/// thread that created it uses the library. Errors: xercesc::OutOfMemoryException.
class StartMemory : public xercesc::MemoryManager {
public:
  /// While an instance exists, blocks are allocated in the area.
  class Area {
  public:
    explicit Area(StartMemory& memory) noexcept;
    ~Area();
    Area(const Area&) = delete;
    Area& operator=(const Area&) = delete;

  private:
    StartMemory& memory_;
  };

  xercesc::MemoryManager* getExceptionMemoryManager() override { return this; }
  void* allocate(XMLSize_t size) override;
  void deallocate(void* block) override;

private:
  void* allocateInArea(std::size_t size) noexcept;
  bool isInArea(const void* block) const noexcept;

  static constexpr std::size_t kAreaSize = std::size_t{128} * 1024; // a start needs 90 KiB

  alignas(std::max_align_t) std::byte area_[kAreaSize];
  std::size_t used_ = 0;
  std::atomic<std::size_t> blocks_ = 0; // allocated in the area; any thread may free one
  bool usesArea_ = false;
};

} // namespace xml
