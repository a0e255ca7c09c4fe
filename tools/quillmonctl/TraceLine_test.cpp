#include "quillmonctl/TraceLine.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(TraceLine, aLineIsCutWithoutLosingAnything) {
  struct Row {
    const char* line;
    const char* component;
    const char* message;
  };
  const Row rows[] = {
      {"11/21/2026 17:29:05  <<XMLAdapter>>: Creating socket", "<<XMLAdapter>>",
       ": Creating socket"},
      {"11/21/2026 17:29:05  [Process] exit t_Result = 0", "[Process]", " exit t_Result = 0"},
      {"11/21/2026 17:29:05  \t<<A::b>> * c *", "<<A::b>>", " * c *"},
      {"11/21/2026 17:29:05  <<<< CreateInstanceEnumAsync >>>>", "",
       "<<<< CreateInstanceEnumAsync >>>>"},
      {"11/21/2026 17:29:05  No configuration file found", "", "No configuration file found"},
      {"a line's second half", "", "a line's second half"},
      {"<<never closed", "", "<<never closed"},
      {"", "", ""},
  };
  for (const Row& row : rows) {
    const TraceLine parts = TraceLine::parse(row.line);
    EXPECT_EQ(parts.component, row.component) << row.line;
    EXPECT_EQ(parts.message, row.message) << row.line;
    EXPECT_EQ(std::string(parts.stamp) + std::string(parts.lead) + std::string(parts.component) +
                  std::string(parts.message),
              row.line);
  }
}

TEST(TraceLine, theComponentIsInColourWhereColourIsWanted) {
  const char* const line = "11/21/2026 17:29:05  <<X>>: y";
  EXPECT_EQ(shown(line, false), line);
  EXPECT_EQ(shown(line, true), "\x1b[2m11/21/2026 17:29:05\x1b[0m  \x1b[36m<<X>>\x1b[0m: y");
}

TEST(TraceLine, whatAPeerPutIntoALineSpeaksToNoConsole) {
  EXPECT_EQ(shown("<<X>>: \x1b[2J", false), "<<X>>: \\x1b[2J");
  EXPECT_EQ(shown("<<\x1b[2J>>: \x1b[2J", true), "\x1b[36m<<\\x1b[2J>>\x1b[0m: \\x1b[2J");
}

TEST(TraceLine, colourIsForAConsoleWithoutNoColor) {
  EXPECT_TRUE(wantsColour(true, nullptr));
  EXPECT_TRUE(wantsColour(true, ""));
  EXPECT_FALSE(wantsColour(true, "1"));
  EXPECT_FALSE(wantsColour(false, nullptr));
}

} // namespace
