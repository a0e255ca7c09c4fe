#include "device_server/Frame.h"

#include <gtest/gtest.h>

namespace till {
namespace {

using namespace std::string_literals;

TEST(Frame, wrapsTheMessageBetweenEscapeAndBackspace) {
  EXPECT_EQ(frame("abc"), "\x1B"
                          "abc\x08");
}

TEST(FrameScanner, givesTheBytesBetweenTheMarks) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("noise\x08\x1B"
                         "abc\x08more\x1B"
                         "def\x08"),
            "abc");
}

TEST(FrameScanner, joinsAMessageFedByteByByte) {
  FrameScanner scanner;
  const std::string stream = "x\x1B"
                             "hello \0 there"s;
  for (const char each : stream) {
    EXPECT_EQ(scanner.feed(std::string_view(&each, 1)), std::nullopt);
  }
  EXPECT_TRUE(scanner.started());
  EXPECT_EQ(scanner.feed("\x08"), "hello \0 there"s);
  EXPECT_EQ(scanner.fed(), stream.size() + 1);
}

TEST(FrameScanner, keepsAStartMarkInsideTheMessage) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("\x1B"
                         "a\x1B"
                         "b\x08"),
            "a\x1B"
            "b");
}

TEST(FrameScanner, dropsAnEndMarkOutsideAMessage) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("\x08\x08"), std::nullopt);
  EXPECT_FALSE(scanner.started());
  EXPECT_EQ(scanner.feed("\x1B\x08"), "");
}

TEST(FrameScanner, countsDroppedBytesToo) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed(std::string(5000, 'x')), std::nullopt);
  EXPECT_EQ(scanner.fed(), 5000U);
}

} // namespace
} // namespace till
