#pragma once

#include <cstdint>
#include <memory>

/// A growable byte string for what arrives on a socket, always NUL-terminated, so that `text()` can
/// be read as a C string.
///
/// Owner: one reader; one thread at a time.
/// Errors: std::bad_alloc leaves the buffer as it was. A buffer that may not grow any more (its
/// next capacity would not be below 0xFFFFFFFF) keeps the bytes that still fit and drops the rest.
class ByteBuffer {
public:
  /// A negative capacity counts as 0; a growth below 1.5 as 1.5.
  ByteBuffer(std::int32_t initialCapacity, float growth);
  /// A tight copy: one and a half times the source's length, and growing faster, by 2.0.
  ByteBuffer(const ByteBuffer& source);
  ByteBuffer& operator=(const ByteBuffer&) = delete;

  void appendChar(char byte);
  /// Nothing without a pointer. The bytes must not be this buffer's own.
  void appendBytes(const char* bytes, std::uint32_t count);
  void appendString(const char* text);
  /// Forgets the bytes, keeps the block.
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
