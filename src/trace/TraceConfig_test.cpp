#include "trace/TraceConfig.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

using trace::TraceConfig;
using trace::TraceSetting;

void PrintTo(const TraceSetting& setting, std::ostream* out) {
  *out << setting.name() << '=' << setting.value;
}

namespace {

using Key = TraceSetting::Key;

TEST(TraceConfig, AKnownKeyGivesItsClampedValue) {
  struct Row {
    const char* line;
    TraceSetting setting;
  };
  const std::initializer_list<Row> rows = {
      {"FileSize=1000000\n", {Key::FileSize, 1000000}},
      {"BackupCount = 3\n", {Key::BackupCount, 3}},
      {" \t FileSize \t = \t 500 \t \n", {Key::FileSize, 500}},
      {"FileSize : \"500\"\n", {Key::FileSize, 500}},
      {"FileSize:'500'", {Key::FileSize, 500}},
      {"FileSize=\" 500 \"", {Key::FileSize, 500}},
      {"BackupCount:=3", {Key::BackupCount, 0}},
      {"BackupCount=2:4", {Key::BackupCount, 2}},
      {"FileSize=20000000", {Key::FileSize, 10000000}},
      {"FileSize=10000000", {Key::FileSize, 10000000}},
      {"FileSize=-1", {Key::FileSize, 0}},
      {"BackupCount=9", {Key::BackupCount, 5}},
      {"BackupCount=5", {Key::BackupCount, 5}},
      {"BackupCount=-1", {Key::BackupCount, 0}},
      {"FileSize=2147483648", {Key::FileSize, 10000000}},
      {"FileSize=4294967297", {Key::FileSize, 10000000}},
      {"FileSize=-2147483649", {Key::FileSize, 0}},
      {"FileSize=99999999999999999999999999999999999999", {Key::FileSize, 10000000}},
      {"BackupCount=-99999999999999999999999999999999999", {Key::BackupCount, 0}},
      {"BackupCount=+4", {Key::BackupCount, 4}},
      {"BackupCount=3 copies", {Key::BackupCount, 3}},
      {"BackupCount=003", {Key::BackupCount, 3}},
      {"BackupCount=--3", {Key::BackupCount, 0}},
      {"FileSize=0x10", {Key::FileSize, 0}},
      {"FileSize=many", {Key::FileSize, 0}},
      {"FileSize=\"", {Key::FileSize, 0}},
      {"FileSize=\"500'", {Key::FileSize, 0}},
      {"FileSize='\"500\"'", {Key::FileSize, 0}},
      {"FileSize=500\r\n", {Key::FileSize, 500}}};
  for (const Row& row : rows) {
    EXPECT_EQ(TraceConfig::readLine(row.line), row.setting) << row.line;
  }
}

TEST(TraceConfig, OtherLinesGiveNothing) {
  for (const char* line : {"",
                           "\n",
                           "   \t\n",
                           "# FileSize=1",
                           "!FileSize=1",
                           "=FileSize=1",
                           " \t#FileSize=1",
                           "FileSize",
                           "FileSize 500",
                           "filesize=500",
                           "FILESIZE=500",
                           "FileSizes=500",
                           "File Size=500",
                           "backupcount=1",
                           ":",
                           ":500",
                           "Other=1",
                           "FileSize=",
                           "FileSize= \t\n",
                           "FileSize=\"\"",
                           "BackupCount=''\n",
                           "\"FileSize\"=500",
                           "\nFileSize=500"}) {
    EXPECT_EQ(TraceConfig::readLine(line), std::nullopt) << line;
  }
}

TEST(TraceConfig, SettingsAreNamedByTheirKeys) {
  EXPECT_STREQ((TraceSetting{Key::FileSize, 0}.name()), "FileSize");
  EXPECT_STREQ((TraceSetting{Key::BackupCount, 0}.name()), "BackupCount");
}

struct FileCloser {
  void operator()(std::FILE* file) const { EXPECT_EQ(std::fclose(file), 0); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::vector<TraceSetting> read(const std::string& content) {
  const std::string path = testing::TempDir() + "quillmon_trace_config_" +
                           testing::UnitTest::GetInstance()->current_test_info()->name();
  std::ofstream(path, std::ios::binary) << content;
  std::vector<TraceSetting> settings;
  if (const File file{std::fopen(path.c_str(), "r")}) {
    TraceConfig::readFile(file.get(),
                          [&](const TraceSetting& setting) { settings.push_back(setting); });
  } else {
    ADD_FAILURE() << "cannot read " << path;
  }
  std::filesystem::remove(path);
  return settings;
}

using Settings = std::vector<TraceSetting>;

TEST(TraceConfig, AnEmptyFileHasNoSettings) {
  EXPECT_EQ(read(""), Settings{});
}

TEST(TraceConfig, SettingsComeInTheOrderOfTheirLines) {
  EXPECT_EQ(read("# the trace log\nFileSize=1000000\n\n! copies\nBackupCount = 3\nFileSize=7"),
            (Settings{{Key::FileSize, 1000000}, {Key::BackupCount, 3}, {Key::FileSize, 7}}));
}

TEST(TraceConfig, ALongLineIsReadInPiecesThatCountAsLines) {
  EXPECT_EQ(read("#" + std::string(1022, 'x') + "FileSize=77\nBackupCount=2\n"),
            (Settings{{Key::FileSize, 77}, {Key::BackupCount, 2}}));
  EXPECT_EQ(read("#" + std::string(1021, 'x') + "FileSize=77\n"), Settings{});
  EXPECT_EQ(read("#" + std::string(1023, 'x') + "FileSize=77\n"), Settings{});
}

TEST(TraceConfig, APieceCanEndInsideANumber) {
  const std::string blanks(1023 - std::string("FileSize=12").size(), ' ');
  EXPECT_EQ(read(blanks + "FileSize=1234\n"), (Settings{{Key::FileSize, 12}}));
}

TEST(TraceConfig, ALineOf1023CharactersLeavesAnEmptyPiece) {
  EXPECT_EQ(read("FileSize=5" + std::string(1013, ' ') + "\nBackupCount=1\n"),
            (Settings{{Key::FileSize, 5}, {Key::BackupCount, 1}}));
}

TEST(TraceConfig, AZeroByteEndsItsLine) {
  using namespace std::string_literals;
  EXPECT_EQ(read("FileSize=5\0"
                 "55\nBackupCount\0=1\nBackupCount=2\n"s),
            (Settings{{Key::FileSize, 5}, {Key::BackupCount, 2}}));
}

TEST(TraceConfig, EveryByteIsAccepted) {
  std::string bytes;
  for (int i = 0; i < 4096; ++i) {
    const char byte = static_cast<char>(i * 31 % 256);
    bytes += byte == '\x1a' ? ' ' : byte; // ends a text file on Windows
  }
  EXPECT_EQ(read(bytes + "\nFileSize=9\n"), (Settings{{Key::FileSize, 9}}));
}

} // namespace
