#include "quillmonctl/BinaryPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ctl::BinaryPath;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(BinaryPath, APathIsSplitIntoProgramAndArguments) {
  struct Row {
    const char* text;
    const char* program;
    const char* arguments;
    bool isQuoted;
  };
  const Row rows[] = {
      {"C:/Quillmon/quillmon.exe", "C:\\Quillmon\\quillmon.exe", "", false},
      {"C:/Quillmon/quillmon.exe -o", "C:\\Quillmon\\quillmon.exe", "-o", false},
      {"C:\\Program Files\\Q\\quillmon.EXE -o", "C:\\Program Files\\Q\\quillmon.EXE", "-o", false},
      {"\"C:\\Program Files\\Q\\quillmon.exe\"  -o", "C:\\Program Files\\Q\\quillmon.exe", "-o",
       true},
      {"\"C:\\a.exe", "C:\\a.exe", "", true},
      {"C:\\a.exe.d\\b -x", "C:\\a.exe.d\\b", "-x", false},
      {"", "", "", false},
  };
  for (const Row& row : rows) {
    const BinaryPath path = BinaryPath::parse(row.text);
    EXPECT_EQ(path.program, row.program) << row.text;
    EXPECT_EQ(path.arguments, row.arguments) << row.text;
    EXPECT_EQ(path.isQuoted, row.isQuoted) << row.text;
  }
}

TEST(BinaryPath, APathWithABlankIsQuoted) {
  EXPECT_EQ(BinaryPath::parse("C:/Program Files/Q/q.exe -o").text(),
            "\"C:\\Program Files\\Q\\q.exe\" -o");
  EXPECT_EQ(BinaryPath::parse("C:/Q/q.exe").text(), "C:\\Q\\q.exe");
}

TEST(BinaryPath, HijackCandidatesEndBeforeEachBlankOfAnUnquotedPath) {
  EXPECT_THAT(BinaryPath::parse("C:/Program Files/My Till/q.exe -o").hijackCandidates(),
              ElementsAre("C:\\Program.exe", "C:\\Program Files\\My.exe"));
  EXPECT_THAT(BinaryPath::parse("\"C:/Program Files/q.exe\"").hijackCandidates(), IsEmpty());
  EXPECT_THAT(BinaryPath::parse("C:/Q/q.exe -o").hijackCandidates(), IsEmpty());
}

TEST(BinaryPath, TheSecondCharacterOfTheOptionSelectsTheProxyStrategy) {
  EXPECT_TRUE(BinaryPath::parse("C:/q.exe -o").isProxy());
  EXPECT_TRUE(BinaryPath::parse("C:/q.exe /o").isProxy());
  EXPECT_FALSE(BinaryPath::parse("C:/q.exe -O").isProxy());
  EXPECT_FALSE(BinaryPath::parse("C:/q.exe").isProxy());
}

} // namespace
