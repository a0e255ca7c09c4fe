#include "adapter/ByteBuffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

using adapter::ByteBuffer;

namespace {

std::string content(const ByteBuffer& buffer) {
  return {buffer.text(), buffer.size()};
}

void append(ByteBuffer& buffer, const std::string& bytes) {
  buffer.appendBytes(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

TEST(ByteBuffer, StartsEmptyWithTheGivenCapacity) {
  const ByteBuffer buffer(1024, 1.5F);
  EXPECT_EQ(buffer.size(), 0U);
  EXPECT_EQ(buffer.capacity(), 1024U);
  EXPECT_EQ(buffer.growth(), 1.5F);
  EXPECT_STREQ(buffer.text(), "");
}

TEST(ByteBuffer, ANegativeCapacityCountsAsZero) {
  EXPECT_EQ(ByteBuffer(-1, 1.5F).capacity(), 0U);
  EXPECT_EQ(ByteBuffer(std::numeric_limits<std::int32_t>::min(), 1.5F).capacity(), 0U);
}

TEST(ByteBuffer, GrowthIsAtLeastOneAndAHalf) {
  EXPECT_EQ(ByteBuffer(0, -3.0F).growth(), 1.5F);
  EXPECT_EQ(ByteBuffer(0, 1.4F).growth(), 1.5F);
  EXPECT_EQ(ByteBuffer(0, std::nanf("")).growth(), 1.5F);
  EXPECT_EQ(ByteBuffer(0, 3.0F).growth(), 3.0F);
}

TEST(ByteBuffer, IsTerminatedAfterEachAppend) {
  ByteBuffer buffer(0, 1.5F);
  buffer.appendChar('a');
  EXPECT_STREQ(buffer.text(), "a");
  buffer.appendString("bc");
  EXPECT_STREQ(buffer.text(), "abc");
  buffer.appendBytes("defgh", 3);
  EXPECT_STREQ(buffer.text(), "abcdef");
  EXPECT_EQ(buffer.size(), 6U);
}

TEST(ByteBuffer, HoldsZeroBytes) {
  ByteBuffer buffer(4, 1.5F);
  buffer.appendBytes("a\0b", 3);
  EXPECT_EQ(content(buffer), std::string("a\0b", 3));
  EXPECT_STREQ(buffer.text(), "a");
}

TEST(ByteBuffer, NullPointersAndEmptyInputAppendNothing) {
  ByteBuffer buffer(0, 1.5F);
  buffer.appendBytes(nullptr, 5);
  buffer.appendString(nullptr);
  buffer.appendBytes("abc", 0);
  buffer.appendString("");
  EXPECT_EQ(buffer.size(), 0U);
  EXPECT_EQ(buffer.capacity(), 0U);
  EXPECT_STREQ(buffer.text(), "");
}

TEST(ByteBuffer, ClearKeepsTheBlock) {
  ByteBuffer buffer(0, 1.5F);
  append(buffer, std::string(100, 'x'));
  const char* const block = buffer.text();
  const std::uint32_t capacity = buffer.capacity();
  buffer.clear();
  EXPECT_EQ(buffer.size(), 0U);
  EXPECT_STREQ(buffer.text(), "");
  EXPECT_EQ(buffer.text(), block);
  EXPECT_EQ(buffer.capacity(), capacity);
}

struct GrowthRow {
  const char* label;
  std::int32_t initial;
  float growth;
  std::uint32_t held;
  std::uint32_t extra;
  std::uint32_t expected;
};

TEST(ByteBuffer, GrowsByTheRules) {
  const GrowthRow rows[] = {
      {"what fits changes nothing", 10, 1.5F, 4, 6, 10},
      {"one byte too many: one step", 10, 1.5F, 10, 1, 15},
      {"up to the step: one step", 10, 1.5F, 10, 5, 15},
      {"beyond the step: what is needed, one and a half times", 10, 1.5F, 10, 6, 24},
      {"products are truncated, a step", 11, 1.5F, 11, 1, 16},
      {"products are truncated, beyond the step", 10, 1.5F, 10, 7, 25},
      {"from nothing", 0, 1.5F, 0, 1, 1},
      {"from nothing, three", 0, 1.5F, 0, 3, 4},
      {"the step of one is one and needs more", 1, 1.5F, 1, 1, 3},
      {"another factor, a step", 10, 2.25F, 10, 12, 22},
      {"another factor, beyond the step", 10, 2.25F, 10, 13, 51},
      {"a large area", 1024, 1.5F, 1024, 1024, 3072},
  };
  for (const GrowthRow& row : rows) {
    SCOPED_TRACE(row.label);
    ByteBuffer buffer(row.initial, row.growth);
    const std::string held(row.held, 'h');
    const std::string extra(row.extra, 'e');
    append(buffer, held);
    append(buffer, extra);
    EXPECT_EQ(buffer.capacity(), row.expected);
    EXPECT_EQ(content(buffer), held + extra);
  }
}

TEST(ByteBuffer, TakesEverySizeUpToAFewThousand) {
  for (std::uint32_t size = 0; size < 3000; ++size) {
    ByteBuffer whole(7, 1.5F);
    append(whole, std::string(size, 'w'));
    ASSERT_EQ(whole.size(), size);
    ASSERT_GE(whole.capacity(), size);
  }
  ByteBuffer piecewise(0, 1.5F);
  for (std::uint32_t size = 0; size < 3000; ++size) {
    piecewise.appendChar('p');
    ASSERT_EQ(piecewise.size(), size + 1);
    ASSERT_GE(piecewise.capacity(), piecewise.size());
  }
}

TEST(ByteBuffer, LosesNoByteWhereSinglePrecisionWould) {
  // Neither 16777217 nor 1.5 times it is representable in single precision.
  ByteBuffer buffer(16777217, 1.5F);
  const std::string half(8388600, 'x');
  append(buffer, half);
  append(buffer, half);
  append(buffer, std::string(17, 'x'));
  ASSERT_EQ(buffer.capacity(), 16777217U);
  buffer.appendChar('y');
  EXPECT_EQ(buffer.capacity(), 25165825U);
  EXPECT_EQ(buffer.text()[16777217], 'y');
}

TEST(ByteBuffer, KeepsWhatFitsWhenItMayNotGrow) {
  ByteBuffer step(10, 1e9F); // the next step would be 10,000,000,000
  step.appendString("0123456789ABC");
  EXPECT_STREQ(step.text(), "0123456789");
  step.appendChar('X');
  EXPECT_EQ(step.size(), 10U);
  EXPECT_EQ(step.capacity(), 10U);

  ByteBuffer needed(0, 1e10F);
  needed.appendChar('X');
  EXPECT_EQ(needed.size(), 0U);
  EXPECT_STREQ(needed.text(), "");

  ByteBuffer infinite(0, std::numeric_limits<float>::infinity());
  infinite.appendString("X"); // 0 times infinity is NaN
  EXPECT_EQ(infinite.size(), 0U);
}

TEST(ByteBuffer, ALengthThatWouldWrapIsTruncated) {
  // No buffer can hold so many bytes, so no more bytes are read than fit.
  ByteBuffer buffer(8, 1.5F);
  buffer.appendString("abc");
  buffer.appendBytes("defghijk", std::numeric_limits<std::uint32_t>::max());
  EXPECT_EQ(buffer.size(), 8U);
  EXPECT_STREQ(buffer.text(), "abcdefgh");
}

TEST(ByteBuffer, ACopyHasOneAndAHalfTimesTheLengthAndGrowsByTwo) {
  ByteBuffer source(1024, 1.5F);
  append(source, std::string(100, 'x'));
  const auto copy = source.clone();
  EXPECT_EQ(copy->size(), 100U);
  EXPECT_EQ(copy->capacity(), 150U);
  EXPECT_EQ(copy->growth(), 2.0F);
  EXPECT_EQ(content(*copy), content(source));
  append(*copy, std::string(51, 'y'));
  EXPECT_EQ(copy->capacity(), 300U);
  EXPECT_EQ(source.size(), 100U);
}

TEST(ByteBuffer, ACopyOfAShortOrEmptyBufferHoldsItsContent) {
  ByteBuffer source(0, 1.5F);
  const auto nothing = source.clone();
  EXPECT_EQ(nothing->capacity(), 0U);
  EXPECT_STREQ(nothing->text(), "");
  source.appendBytes("\0", 1);
  const auto one = source.clone();
  EXPECT_EQ(one->capacity(), 1U);
  EXPECT_EQ(content(*one), std::string("\0", 1));
}

} // namespace
