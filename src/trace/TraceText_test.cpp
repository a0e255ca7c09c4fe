#include "trace/TraceText.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Row {
  const char* name;
  std::string message;
  std::string text;
};

class TraceText : public testing::TestWithParam<Row> {};

TEST_P(TraceText, Is) {
  EXPECT_EQ(traceText(GetParam().message), GetParam().text);
}

const std::string kStamp = "01/02/2026 03:04:05  ";

INSTANTIATE_TEST_SUITE_P(
    Rows, TraceText,
    testing::Values(Row{"Empty", "", ""}, Row{"Plain", "[Process] exit", "[Process] exit"},
                    Row{"BeginningWithADigit", "1 device", "1 device"},
                    Row{"BeyondAscii", "Caf\xE9 \x80\x9B\xFF", "Caf\xE9 \x80\x9B\xFF"},
                    Row{"Tab", "\tPutField\t1", "\tPutField\t1"},
                    Row{"LineEnds", "<a>\n  <b/>\r\n\n</a>\n", "<a>\n  <b/>\r\n\n</a>\n"},
                    Row{"AForgedLine", "x\n" + kStamp + "[Process] exit",
                        "x\n " + kStamp + "[Process] exit"},
                    Row{"AForgedLineBehindCrLf", "x\r\n" + kStamp, "x\r\n " + kStamp},
                    Row{"AForgedLineFirst", "\n" + kStamp, "\n " + kStamp},
                    Row{"AnyDigitAtTheBeginningOfALine", "0\n1\r\n9\n 5\n", "0\n 1\r\n 9\n 5\n"},
                    Row{"ACrAlone", "x\r" + kStamp + "\r\r\n\r", "x?" + kStamp + "?\r\n?"},
                    Row{"ControlCharacters", std::string("\x01\x07\x08\x0B\x0C\x1B[2K\x1F\x7F"),
                        "?????"
                        "?[2K??"},
                    Row{"NulsToo", std::string("a\0b", 3), "a?b"}),
    [](const auto& row) { return row.param.name; });

} // namespace
