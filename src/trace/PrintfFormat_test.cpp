#include "trace/PrintfFormat.h"

#include <climits>
#include <gtest/gtest.h>

#include <bit>
#include <initializer_list>
#include <vector>

using trace::formatPrintf;
using trace::TraceArgument;

namespace {

template <class... Arguments>
std::string format(std::string_view text, const Arguments&... arguments) {
  return formatPrintf(text, {TraceArgument(arguments)...});
}

struct Row {
  const char* format;
  std::string expected;
};

TEST(PrintfFormat, TextWithoutConversionsIsUnchanged) {
  EXPECT_EQ(format(""), "");
  EXPECT_EQ(format("<<XMLAdapter>>: Creating socket"), "<<XMLAdapter>>: Creating socket");
}

TEST(PrintfFormat, ArgumentsAreInsertedInOrder) {
  EXPECT_EQ(format("Key : %s, Value : %i", "FileSize", 500), "Key : FileSize, Value : 500");
  EXPECT_EQ(format("%s.%d", std::string("C:\\Quillmon.log"), 3), "C:\\Quillmon.log.3");
}

TEST(PrintfFormat, NumbersAreFormattedAsByPrintf) {
  const std::initializer_list<Row> rows = {
      {"%d", "-42"},           {"%i", "-42"},           {"%6d", "   -42"},
      {"%-6d|", "-42   |"},    {"%06d", "-00042"},      {"%.4d", "-0042"},
      {"%8.4d", "   -0042"},   {"%+d", "-42"},          {"%#d", "-42"},
      {"%u", "4294967254"},    {"%x", "ffffffd6"},      {"%#X", "0XFFFFFFD6"},
      {"%o", "37777777726"},   {"%hu", "65494"},        {"%hhx", "d6"},
      {"%ld", "-42"},          {"%lld", "-42"},         {"%I64d", "-42"},
      {"%zd", "-42"},          {"%jd", "-42"},          {"%td", "-42"},
      {"%Id", "-42"},          {"%I32u", "4294967254"}, {"%-+ #05d|", "-42  |"},
      {"%------5d|", "-42  |"}};
  for (const Row& row : rows) {
    EXPECT_EQ(format(row.format, -42), row.expected) << row.format;
  }
}

TEST(PrintfFormat, PositiveNumbersTakeTheSignAndTheBlank) {
  EXPECT_EQ(format("%+d|% d|%+u|%.0d|%#x|%#o", 7, 7, 7, 0, 255, 8), "+7| 7|7||0xff|010");
}

TEST(PrintfFormat, AnUnsigned32BitNumberFormattedAsSignedMayBeNegative) {
  EXPECT_EQ(format("%d", 4294967295U), "-1");
  EXPECT_EQ(format("%i", 0x80041001U), "-2147217407");
  EXPECT_EQ(format("%u", 4294967295U), "4294967295");
  EXPECT_EQ(format("%x", 0x80041001U), "80041001");
}

TEST(PrintfFormat, NumbersKeepTheWidthOfTheirType) {
  EXPECT_EQ(format("%d %u", LLONG_MIN, ULLONG_MAX), "-9223372036854775808 18446744073709551615");
  EXPECT_EQ(format("%llx", static_cast<long long>(-1)), "ffffffffffffffff");
  EXPECT_EQ(format("%d %d", true, static_cast<short>(-2)), "1 -2");
  EXPECT_EQ(format("%hd %hhd", 70000, 300), "4464 44");
}

TEST(PrintfFormat, TextTakesWidthAndPrecision) {
  EXPECT_EQ(format("[%5s][%-5s][%.2s][%5.1s][%.s]", "abc", "abc", "abc", "abc", "abc"),
            "[  abc][abc  ][ab][    a][]");
  EXPECT_EQ(format("%.99999999999999999999s", "whole"), "whole");
  EXPECT_EQ(format("%hs", "narrow"), "narrow");
}

TEST(PrintfFormat, LongTextIsNotTruncated) {
  const std::string text(1'000'000, 'x');
  EXPECT_EQ(format("'%s'", text), "'" + text + "'");
}

TEST(PrintfFormat, TextEndsAtItsFirstZeroByte) {
  using namespace std::string_view_literals;
  EXPECT_EQ(format("<%s>", "ab\0cd"sv), "<ab>");
  EXPECT_EQ(format("ab\0%d"sv, 1), "ab");
}

TEST(PrintfFormat, TextNeedNotBeTerminated) {
  const std::vector<char> text{'a', 'b', 'c'};
  EXPECT_EQ(format("%s", std::string_view(text.data(), text.size())), "abc");
}

TEST(PrintfFormat, ANullTextIsWrittenAsNull) {
  EXPECT_EQ(format("%s", static_cast<const char*>(nullptr)), "(null)");
}

TEST(PrintfFormat, TextThatLooksLikeAConversionIsNotReadAsOne) {
  EXPECT_EQ(format("%s %d", "%d%n%s", 1), "%d%n%s 1");
}

TEST(PrintfFormat, ACharacterIsWritten) {
  EXPECT_EQ(format("[%c][%3c][%-3c]", 'a', 'b', 99), "[a][  b][c  ]");
}

TEST(PrintfFormat, AnAddressHasSixteenUpperCaseDigits) {
  const auto address = [](std::uintptr_t value) { return std::bit_cast<const void*>(value); };
  EXPECT_EQ(format("%p", address(0)), "0000000000000000");
  EXPECT_EQ(format("%p", address(0x7ffabcdef012)), "00007FFABCDEF012");
  EXPECT_EQ(format("%18p|%-18p|", address(1), address(2)),
            "  0000000000000001|0000000000000002  |");
}

TEST(PrintfFormat, TwoPercentSignsAreOne) {
  EXPECT_EQ(format("100%% of %d%%", 5), "100% of 5%");
  EXPECT_EQ(format("%%d%%%%", 5), "%d%%");
}

TEST(PrintfFormat, WithoutArgumentsEveryConversionIsUnchanged) {
  for (const char* text : {"%d",
                           "%s",
                           "%n",
                           "%p",
                           "%c",
                           "%",
                           "50%",
                           "% ",
                           "%-",
                           "%5",
                           "%.",
                           "%5.2",
                           "%l",
                           "%ll",
                           "%I64",
                           "%hh",
                           "100% of it",
                           "%s%s%s%s%n%n",
                           "%*d",
                           "%S",
                           "%*.*s",
                           "%1$s",
                           "%5%",
                           "%\xff",
                           "%f",
                           "%99999999999999999999d",
                           "%.99999999999999999999s"}) {
    EXPECT_EQ(formatPrintf(text, {}), text);
  }
}

TEST(PrintfFormat, AnUnknownConversionStaysAndUsesNoArgument) {
  for (const std::string text :
       {"%n", "%hhn", "%*d", "%.*s", "%1$d", "%f", "%a", "%S", "%y", "%5%", "%-%", "%\xff"}) {
    EXPECT_EQ(format(text + " %d", 5), text + " 5");
  }
}

TEST(PrintfFormat, AConversionOfAnotherKindStaysAndUsesItsArgument) {
  EXPECT_EQ(format("%d %d", "text", 1), "%d 1");
  EXPECT_EQ(format("%s %s", 1, "text"), "%s text");
  EXPECT_EQ(format("%p %c %x", 1, "text", static_cast<const void*>(nullptr)), "%p %c %x");
  EXPECT_EQ(format("%ls %lc %d", "narrow", 'c', 2), "%ls %lc 2");
}

TEST(PrintfFormat, ConversionsWithoutAnArgumentLeftStay) {
  EXPECT_EQ(format("%d %d %s", 1), "1 %d %s");
}

TEST(PrintfFormat, ExcessArgumentsAreIgnored) {
  EXPECT_EQ(format("%d", 1, 2, "x"), "1");
}

TEST(PrintfFormat, AVeryLargeWidthIsLimited) {
  EXPECT_EQ(format("%99999999999999999999d", 5), std::string(1023, ' ') + "5");
  EXPECT_EQ(format("%-2147483648s|", "x"), "x" + std::string(1023, ' ') + "|");
  EXPECT_EQ(format("%.2147483647d", -5), "-" + std::string(1023, '0') + "5");
  EXPECT_EQ(format("%#1024.1024x", 1), "0x" + std::string(1023, '0') + "1");
}

TEST(PrintfFormat, ALongHostileFormatTakesLinearTime) {
  std::string hostile;
  for (int i = 0; i < 300'000; ++i) {
    hostile += "%-0999999";
  }
  EXPECT_EQ(formatPrintf(hostile, {}), hostile);
}

} // namespace
