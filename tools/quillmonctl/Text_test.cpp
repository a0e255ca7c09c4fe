#include "quillmonctl/Text.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace ctl;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

TEST(Text, AControlCharacterIsMadeVisible) {
  EXPECT_EQ(printable("a\x1b[2Jb\r\n\x7f"), "a\\x1b[2Jb\\x0d\\x0a\\x7f");
}

TEST(Text, AnEightBitControlCharacterIsMadeVisible) {
  EXPECT_EQ(printable("a\xC2\x9B"
                      "2J"),
            "a\\x9b2J");
}

TEST(Text, ATabIsKeptOnRequest) {
  EXPECT_EQ(printable("\ta"), "\\x09a");
  EXPECT_EQ(printable("\ta", true), "\ta");
}

TEST(Text, LettersOfAnyScriptAreUnchanged) {
  EXPECT_EQ(printable("Kasse f\xC3\xBCr \xE6\x97\xA5"), "Kasse f\xC3\xBCr \xE6\x97\xA5");
}

TEST(Text, TruncationCountsCodePointsAndSplitsNone) {
  EXPECT_EQ(truncated("\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F", 4), "\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F");
  EXPECT_EQ(truncated("\xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F\xC3\xA4", 4), "\xC3\xA4...");
}

TEST(Text, WrappingBreaksAtBlanksAndIndents) {
  EXPECT_EQ(wrap("one two three", 8, 2), "one two\n  three\n");
  EXPECT_EQ(wrap("one two", 80, 2), "one two\n");
  EXPECT_EQ(wrap("", 80, 2), "\n");
}

TEST(Text, WrappingBreaksAWordThatIsTooLong) {
  EXPECT_EQ(wrap("abcdefghij", 4, 1), "abcd\n efg\n hij\n");
}

TEST(Text, WrappingLeavesAQuarterOfALineBehindAnyIndent) {
  EXPECT_EQ(wrap("one two three", 8, 8), "one two\n      th\n      re\n      e\n");
  EXPECT_EQ(wrap("one two three", 8, 99), "one two\n      th\n      re\n      e\n");
}

TEST(Text, WrappingKeepsTheBlanksThatBeginTheText) {
  EXPECT_EQ(wrap("  aaaa bbbb", 8, 4), "  aaaa\n    bbbb\n");
}

TEST(Text, ATableStaysWithinItsWidth) {
  const std::string wide(60, 'x');
  const std::string text = table({"ID", "MODEL", "MAKER"}, {{"A", wide, wide}, {"B", "m", "n"}});
  for (const std::string& line : linesOf(text)) {
    EXPECT_LE(line.size(), kWidth) << line;
  }
  EXPECT_NE(text.find("xxx..."), std::string::npos);
  EXPECT_EQ(linesOf(text)[2].substr(0, 4), "B   ");
}

TEST(Text, ANarrowTableIsAsWideAsItsValues) {
  EXPECT_EQ(table({"ID", "M"}, {{"SCANNER1", "a b"}, {"X", ""}}),
            "ID        M\nSCANNER1  a b\nX\n");
}

TEST(Text, ControlCharactersInATableAreMadeVisible) {
  EXPECT_EQ(table({"A"}, {{"\x1b]0;title\a"}}), "A\n\\x1b]0;title\\x07\n");
}

TEST(Text, PairsAlignAndWrapTheirValues) {
  EXPECT_EQ(pairs({{"a", "1"}, {"long", "two three"}}, 11), "a     1\nlong  two\n      three\n");
}

} // namespace
