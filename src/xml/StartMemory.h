#pragma once

#include <xercesc/framework/MemoryManager.hpp>

#include <atomic>
#include <cstddef>

/// The memory that the XML library works with. Each start of the library asks for some 1,500 small
/// blocks, which its end gives back; these come from an area of this program's own. So a start is
/// cheap and does not run out of memory in the middle, after which the library can neither be ended
/// nor started again. What the area has no room for, and everything else, comes from the heap.
///
/// Owner: XmlLibrary; lives as long as the process. Threads: any; but while an `Area` exists, the
/// library is used by the thread that has it, and by no other.
/// Errors: xercesc::OutOfMemoryException.
class StartMemory : public xercesc::MemoryManager {
public:
  /// While one exists, blocks come from the area.
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

  static constexpr std::size_t kAreaSize = std::size_t{128} * 1024; // a start takes 90 KiB

  alignas(std::max_align_t) std::byte area_[kAreaSize];
  std::size_t used_ = 0;
  std::atomic<std::size_t> blocks_ = 0; // in the area; any thread may give one back
  bool usesArea_ = false;
};
