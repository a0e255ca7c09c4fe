#include "adapter/ByteBuffer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

namespace adapter {

namespace {

constexpr float kMinGrowth = 1.5F;
constexpr float kCopyGrowth = 2.0F;
constexpr double kCopyCapacityFactor = 1.5;
constexpr std::uint32_t kCapacityLimit = 0xFFFFFFFF;

std::unique_ptr<char[]> newBlock(std::uint32_t capacity) {
  auto block = std::make_unique_for_overwrite<char[]>(std::size_t{capacity} + 1);
  block[0] = '\0';
  return block;
}

std::uint32_t copyCapacity(std::uint32_t length) {
  return static_cast<std::uint32_t>(
      std::min<double>(length * kCopyCapacityFactor, kCapacityLimit - 1));
}

} // namespace

ByteBuffer::ByteBuffer(std::int32_t initialCapacity, float growth)
    : capacity_(static_cast<std::uint32_t>(std::max(initialCapacity, 0))),
      growth_(growth > kMinGrowth ? growth : kMinGrowth) {
  data_ = newBlock(capacity_);
}

// By design a copy grows by 2.0, whatever the source's growth.
ByteBuffer::ByteBuffer(const ByteBuffer& source)
    : data_(newBlock(copyCapacity(source.length_))), capacity_(copyCapacity(source.length_)),
      growth_(kCopyGrowth) {
  appendBytes(source.text(), source.length_);
}

void ByteBuffer::grow(std::uint32_t extra) {
  // In 64 bits and double precision, so that neither the sum nor a product wraps or loses a byte.
  const std::uint64_t needed = std::uint64_t{length_} + extra;
  const double stepped = double{growth_} * capacity_;
  double wanted = stepped;
  if (static_cast<double>(needed) > stepped) {
    wanted = double{growth_} * static_cast<double>(needed);
  } else if (needed <= capacity_) {
    return;
  }
  if (!(wanted < kCapacityLimit)) { // negated to reject NaN as well
    return;
  }
  const auto capacity = static_cast<std::uint32_t>(wanted);
  auto block = newBlock(capacity);
  std::memcpy(block.get(), data_.get(), length_);
  data_ = std::move(block);
  capacity_ = capacity;
}

void ByteBuffer::appendChar(char byte) {
  appendBytes(&byte, 1);
}

void ByteBuffer::appendBytes(const char* bytes, std::uint32_t count) {
  if (bytes == nullptr) {
    return;
  }
  grow(count);
  const std::uint32_t fitting = std::min(count, capacity_ - length_);
  std::memcpy(data_.get() + length_, bytes, fitting);
  length_ += fitting;
  data_[length_] = '\0';
}

void ByteBuffer::appendString(const char* text) {
  if (text != nullptr) {
    constexpr std::size_t kMaxCount = std::numeric_limits<std::uint32_t>::max();
    appendBytes(text, static_cast<std::uint32_t>(std::min(std::strlen(text), kMaxCount)));
  }
}

void ByteBuffer::clear() noexcept {
  length_ = 0;
  data_[0] = '\0';
}

std::unique_ptr<ByteBuffer> ByteBuffer::clone() const {
  return std::make_unique<ByteBuffer>(*this);
}

} // namespace adapter
