#pragma once

#include <cstdint>
#include <memory>

namespace adapter {

/// A growable byte string for received data, always NUL-terminated.
///
/// Owner: one reader. Threads: one at a time.
/// Errors: std::bad_alloc leaves the buffer unchanged. If the next capacity would not be below
/// 0xFFFFFFFF, the buffer does not grow: it keeps the bytes that fit and drops the rest.
class ByteBuffer {
public:
  /// A negative capacity counts as 0, a growth below 1.5 as 1.5.
  ByteBuffer(std::int32_t initialCapacity, float growth);
  /// The copy has a capacity of 1.5 times the source's length and grows by 2.0.
  ByteBuffer(const ByteBuffer& source);
  ByteBuffer& operator=(const ByteBuffer&) = delete;

  void appendChar(char byte);
  /// Does nothing for a null pointer, like appendString. `bytes` must not point into this buffer.
  void appendBytes(const char* bytes, std::uint32_t count);
  void appendString(const char* text);
  /// Keeps the block.
  void clear() noexcept;

  [[nodiscard]] const char* text() const noexcept { return data_.get(); }
  [[nodiscard]] std::uint32_t size() const noexcept { return length_; }
  [[nodiscard]] std::unique_ptr<ByteBuffer> clone() const;

  [[nodiscard]] std::uint32_t capacity() const noexcept { return capacity_; }
  [[nodiscard]] float growth() const noexcept { return growth_; }

private:
  void grow(std::uint32_t extra);

  std::unique_ptr<char[]> data_; ///< capacity_ + 1 bytes
  std::uint32_t length_ = 0;
  std::uint32_t capacity_;
  float growth_;
};

} // namespace adapter
