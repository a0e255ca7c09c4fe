#include "till/Frame.h"

#include <gtest/gtest.h>

namespace till {
namespace {

using namespace std::string_literals;

TEST(Frame, WrapsTheMessageBetweenEscapeAndBackspace) {
  EXPECT_EQ(frame("abc"), "\x1B"
                          "abc\x08");
}

TEST(FrameScanner, GivesTheBytesBetweenTheMarks) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("noise\x08\x1B"
                         "abc\x08more\x1B"
                         "def\x08"),
            "abc");
}

TEST(FrameScanner, JoinsAMessageFedByteByByte) {
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

TEST(FrameScanner, KeepsAStartMarkInsideTheMessage) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("\x1B"
                         "a\x1B"
                         "b\x08"),
            "a\x1B"
            "b");
}

TEST(FrameScanner, DropsAnEndMarkOutsideAMessage) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed("\x08\x08"), std::nullopt);
  EXPECT_FALSE(scanner.started());
  EXPECT_EQ(scanner.feed("\x1B\x08"), "");
}

TEST(FrameScanner, CountsDroppedBytesToo) {
  FrameScanner scanner;
  EXPECT_EQ(scanner.feed(std::string(5000, 'x')), std::nullopt);
  EXPECT_EQ(scanner.fed(), 5000U);
}

using Documents = std::vector<std::string>;

TEST(RequestScanner, GivesEachDocumentUpToItsEndTag) {
  RequestScanner scanner;
  EXPECT_EQ(scanner.feed("<request>a</request>\r\n <request>b</request>\n<requ"),
            (Documents{"<request>a</request>", "<request>b</request>"}));
  EXPECT_EQ(scanner.pendingSize(), 5U);
  EXPECT_EQ(scanner.feed("est>c</request>"), Documents{"<request>c</request>"});
  EXPECT_EQ(scanner.pendingSize(), 0U);
}

TEST(RequestScanner, GivesTheSameDocumentsByteByByte) {
  const std::string stream = " <?xml version='1.0'?><request>1</request>\t\n"
                             "<request></requ></request>junk</request></request>";
  const Documents whole = RequestScanner().feed(stream);
  EXPECT_EQ(whole, (Documents{"<?xml version='1.0'?><request>1</request>",
                              "<request></requ></request>", "junk</request>", "</request>"}));
  RequestScanner scanner;
  Documents pieces;
  for (const char each : stream) {
    for (std::string& document : scanner.feed(std::string_view(&each, 1))) {
      pieces.push_back(std::move(document));
    }
  }
  EXPECT_EQ(pieces, whole);
}

TEST(RequestScanner, KeepsNoBlanksWhileItWaits) {
  RequestScanner scanner;
  EXPECT_EQ(scanner.feed(std::string(1000, ' ')), Documents());
  EXPECT_EQ(scanner.pendingSize(), 0U);
}

} // namespace
} // namespace till
