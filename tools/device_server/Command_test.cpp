#include "device_server/Command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace till {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string complaintAbout(std::string_view line) {
  try {
    parseCommand(line);
  } catch (const CommandError& problem) {
    return problem.what();
  }
  return "no complaint";
}

TEST(Command, isAWordWithArguments) {
  const auto command = parseCommand("  change\tSCANNER1  7 \r");
  ASSERT_TRUE(command);
  EXPECT_EQ(command->word, "change");
  EXPECT_THAT(command->arguments, ElementsAre("SCANNER1", "7"));
}

TEST(Command, keepsBlanksAndNothingInsideDoubleQuotes) {
  const auto command = parseCommand(R"(set "SCALE 1" ModelName "")");
  ASSERT_TRUE(command);
  EXPECT_THAT(command->arguments, ElementsAre("SCALE 1", "ModelName", ""));
}

TEST(Command, isAbsentFromBlankAndCommentLines) {
  for (const char* line : {"", "   ", "\r", "# attach X", "  #attach X"}) {
    EXPECT_FALSE(parseCommand(line)) << line;
  }
}

TEST(Command, complainsAboutWhatItCannotRead) {
  const struct {
    const char* line;
    const char* complaint;
  } kRows[] = {
      {"attach", "usage: attach ID"},
      {"attach A B", "usage: attach ID"},
      {"detach", "usage: detach ID"},
      {"change", "usage: change ID [CODE]"},
      {"change A B C", "usage: change ID [CODE]"},
      {"set A B", "usage: set ID FIELD VALUE"},
      {"event A", "usage: event ID TYPE [CODE]"},
      {"list all", "usage: list"},
      {"quit now", "usage: quit"},
      {"misbehave-events batch 3 4", "usage: misbehave-events MODE"},
      {"disconnect now", "usage: disconnect"},
      {"reconnect now", "usage: reconnect"},
      {"wait", "usage: wait MS"},
      {"wait soon", "'soon' is not a number of milliseconds from 0 to 3600000"},
      {"wait -1", "'-1' is not a number of milliseconds from 0 to 3600000"},
      {"wait 3600001", "'3600001' is not a number of milliseconds from 0 to 3600000"},
      {"wait 99999999999", "'99999999999' is not a number of milliseconds from 0 to 3600000"},
      {"Attach A", "unknown command 'Attach' (help lists the commands)"},
      {"attach \"A", "a double quote is not closed"},
      {"attach \"A\"B", "a blank is missing after a double quote"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(complaintAbout(row.line), row.complaint) << row.line;
  }
}

TEST(Script, holdsItsCommandsInOrderWithTheirOrigin) {
  const auto script = parseScript("# day\r\nattach A\r\n\r\nwait 10\nquit", "s.txt");
  ASSERT_EQ(script.size(), 3U);
  EXPECT_EQ(script[0].word, "attach");
  EXPECT_EQ(script[0].origin, "s.txt:2: ");
  EXPECT_EQ(script[1].word, "wait");
  EXPECT_EQ(script[1].origin, "s.txt:4: ");
  EXPECT_EQ(script[2].word, "quit");
  EXPECT_EQ(script[2].origin, "s.txt:5: ");
}

TEST(Script, namesTheLineOfAMistake) {
  try {
    parseScript("attach A\n\nreboot\n", "s.txt");
    FAIL() << "no complaint";
  } catch (const CommandError& problem) {
    EXPECT_STREQ(problem.what(), "s.txt:3: unknown command 'reboot' (help lists the commands)");
  }
}

TEST(Script, mayBeEmpty) {
  EXPECT_TRUE(parseScript("", "s.txt").empty());
  EXPECT_TRUE(parseScript("\n\n", "s.txt").empty());
}

TEST(CommandHelpText, namesEveryCommand) {
  for (const CommandHelp& each : commands()) {
    EXPECT_THAT(commandHelp(), HasSubstr(std::string(each.usage)));
  }
}

} // namespace
} // namespace till
