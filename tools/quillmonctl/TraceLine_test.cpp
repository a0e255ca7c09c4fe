#include "quillmonctl/TraceLine.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(TraceLine, ALineIsSplitCompletely) {
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

TEST(TraceLine, TheComponentIsColouredOnRequest) {
  const char* const line = "11/21/2026 17:29:05  <<X>>: y";
  EXPECT_EQ(toConsoleText(line, Origin::Service, false), std::string("  ") + line);
  EXPECT_EQ(toConsoleText(line, Origin::Service, true),
            "  \x1b[2m11/21/2026 17:29:05\x1b[0m  \x1b[36m<<X>>\x1b[0m: y");
}

TEST(TraceLine, TheOriginIsMarkedInFrontOfTheLine) {
  EXPECT_EQ(toConsoleText("x", Origin::Service, false), "  x");
  EXPECT_EQ(toConsoleText("x", Origin::Unclear, false), "? x");
  EXPECT_EQ(toConsoleText("x", Origin::Continuation, true), "| x");
}

TEST(OriginReader, DistinguishesTheServicesLinesFromTextOfPeers) {
  const std::string stamp = "11/21/2026 17:29:05  ";
  struct Row {
    std::string line; // the LF is cut off
    Origin origin;
  };
  const Row rows[] = {
      {"cut off where the reading begins\r", Origin::Continuation},
      {stamp + "[Process] exit t_Result = -1\r", Origin::Unclear},
      {stamp + "<<UPOSAdapter(000000000012FAB0) created\r", Origin::Service},
      {stamp + "<<XMLAdapter>>: Receiving data\r", Origin::Service},
      {stamp + "<response>\r", Origin::Service},
      {stamp + "<<XMLAdapter>>: Creating socket\r", Origin::Unclear},
      {stamp + "Event received: a\r", Origin::Service},
      {"b\r", Origin::Continuation},
      {stamp + "<<XMLAdapter>>: Creating socket", Origin::Unclear},
      {stamp + "no message ends without a CR\r", Origin::Continuation},
      {stamp + "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: 4 *",
       Origin::Unclear},
      {"\r", Origin::Continuation},
      {stamp + "<<<< GetObjectAsync >>>>\r", Origin::Service},
      {stamp + "<<<< GetObjectAsync >>>>x\r", Origin::Service},
      {stamp + "GetIntanceByPath: Number of Keys: \r", Origin::Unclear},
      {stamp, Origin::Unclear},
  };
  OriginReader reader;
  for (const Row& row : rows) {
    EXPECT_EQ(reader.next(row.line), row.origin) << row.line;
  }
}

TEST(TraceLine, ControlCharactersOfAPeerAreMadeVisible) {
  EXPECT_EQ(toConsoleText("<<X>>: \x1b[2J", Origin::Service, false), "  <<X>>: \\x1b[2J");
  EXPECT_EQ(toConsoleText("<<\x1b[2J>>: \x1b[2J", Origin::Service, true),
            "  \x1b[36m<<\\x1b[2J>>\x1b[0m: \\x1b[2J");
}

TEST(TraceLine, ColourIsForAConsoleWithoutNoColor) {
  EXPECT_TRUE(usesColour(true, nullptr));
  EXPECT_TRUE(usesColour(true, ""));
  EXPECT_FALSE(usesColour(true, "1"));
  EXPECT_FALSE(usesColour(false, nullptr));
}

} // namespace
