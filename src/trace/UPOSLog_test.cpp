#include "trace/TimeStamp.h"
#include "win/Handles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

using trace::timeStamp;

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using Lines = std::vector<std::string>;

constexpr const char* kEnablingEvent = "Global\\TRC_QUILLMON";
constexpr const char* kParentKey = "SOFTWARE\\Veltran";
constexpr const char* kKey = "SOFTWARE\\Veltran\\Veltran Kestrune";
constexpr const char* kOurs = "made by the tests of the trace log";
constexpr const char* kNoConfiguration = "No configuration file found, disabling settings";
constexpr std::size_t kStampLength = sizeof("mm/dd/yyyy hh:mm:ss ") - 1;

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void writeFile(const fs::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

/// The messages of a log file. A line that is incomplete or lacks a time stamp fails the test.
Lines messages(const fs::path& log) {
  constexpr std::string_view kShape = "dd/dd/dddd dd:dd:dd  ";
  Lines found;
  std::string content = readFile(log);
  for (std::size_t end = 0; !content.empty(); content.erase(0, end + 2)) {
    end = content.find("\r\n");
    if (end == std::string::npos) {
      ADD_FAILURE() << log << " has a line without an end: " << content;
      break;
    }
    const std::string line = content.substr(0, end);
    std::string shape = line.substr(0, kShape.size());
    std::replace_if(
        shape.begin(), shape.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, 'd');
    EXPECT_EQ(shape, kShape) << "in the line: " << line;
    found.push_back(line.substr(std::min(kShape.size(), line.size())));
  }
  return found;
}

std::string quoted(const std::string& text) {
  return std::string("\"").append(text).append("\"");
}

struct Outcome {
  bool ended = false; ///< false: it blocked and was killed
  DWORD exitCode = 0;
  std::string output;
};

/// Each case has its own folder with the probe, and exclusive use of the machine's enabling event
/// and registry key.
class UPOSLog : public testing::Test {
protected:
  void SetUp() override {
    oneAtATime_.reset(CreateMutexA(nullptr, FALSE, "Quillmon trace log tests"));
    ASSERT_NE(WaitForSingleObject(oneAtATime_.get(), 60000), WAIT_TIMEOUT);
    ASSERT_FALSE(foreignKeyExists()) << "HKEY_LOCAL_MACHINE\\" << kKey << " is in use";
    deleteKey();
    char self[MAX_PATH] = "";
    ASSERT_NE(GetModuleFileNameA(nullptr, self, MAX_PATH), 0U);
    folder_ =
        fs::path(testing::TempDir()) / ("quillmon_trace_" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(folder_);
    fs::copy_file(fs::path(self).replace_filename("trace_probe.exe"), folder_ / "probe.exe",
                  fs::copy_options::overwrite_existing);
  }

  void TearDown() override {
    deleteKey();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
    ReleaseMutex(oneAtATime_.get());
  }

  /// Runs the probe in its folder. Kills it after a minute, or one second after its output has
  /// ended with `hangsAfter`.
  Outcome run(const Lines& commands, std::string_view hangsAfter = {}) {
    const fs::path output = folder_ / "output.txt";
    std::string commandLine = quoted((folder_ / "probe.exe").string());
    for (const std::string& command : commands) {
      commandLine.append(" ").append(quoted(command));
    }
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    win::Handle file(CreateFileA(output.string().c_str(), GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    STARTUPINFOA start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = start.hStdError = file.get();
    PROCESS_INFORMATION information{};
    Outcome outcome;
    if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                        folder_.string().c_str(), &start, &information)) {
      ADD_FAILURE() << "the probe does not start: error " << GetLastError();
      return outcome;
    }
    const win::Handle process(information.hProcess);
    const win::Handle thread(information.hThread);
    const auto endsWithin = [&process](DWORD milliseconds) {
      return WaitForSingleObject(process.get(), milliseconds) == WAIT_OBJECT_0;
    };
    const ULONGLONG deadline = GetTickCount64() + 60000;
    do {
      outcome.ended = endsWithin(hangsAfter.empty() ? 60000 : 20);
      if (!outcome.ended && readFile(output).ends_with(hangsAfter)) {
        outcome.ended = endsWithin(1000);
        break;
      }
    } while (!outcome.ended && GetTickCount64() < deadline);
    if (!outcome.ended) {
      TerminateProcess(process.get(), 99);
      WaitForSingleObject(process.get(), INFINITE);
    }
    GetExitCodeProcess(process.get(), &outcome.exitCode);
    file.reset();
    outcome.output = readFile(output);
    return outcome;
  }

  /// As run, with tracing switched on; expects the probe to end.
  std::string runSwitchedOn(const Lines& commands) {
    Lines all{"event", "signal"};
    all.insert(all.end(), commands.begin(), commands.end());
    const Outcome outcome = run(all);
    EXPECT_TRUE(outcome.ended) << outcome.output;
    EXPECT_EQ(outcome.exitCode, 0U) << outcome.output;
    return outcome.output;
  }

  /// As run, with tracing switched on; expects the probe to block after that output.
  std::string runUntilItHangs(const Lines& commands, const std::string& hangsAfter) {
    Lines all{"event", "signal"};
    all.insert(all.end(), commands.begin(), commands.end());
    const Outcome outcome = run(all, hangsAfter);
    EXPECT_FALSE(outcome.ended) << outcome.output;
    EXPECT_THAT(outcome.output, testing::EndsWith(hangsAfter));
    return outcome.output;
  }

  /// The log beside the program.
  fs::path log() const { return folder_ / "Quillmon.log"; }
  Lines logged() const { return messages(log()); }

  /// Makes `home` the installation: creates its log folder and sets the registry value.
  void install(const fs::path& home) {
    fs::create_directories(home / "Log");
    setInstallDir(home.string() + "\\");
  }
  /// The log of the installation that `configure` makes, or one of its numbered copies.
  fs::path installed(int copy = 0) const {
    return folder_ / "home" / "Log" /
           (copy == 0 ? "Quillmon.log" : "Quillmon.log." + std::to_string(copy));
  }
  /// An installation with this configuration.
  void configure(std::string_view content) {
    install(folder_ / "home");
    writeFile(folder_ / "home" / "zontrace.cfg", content);
  }
  /// The first line of its log.
  std::string nameLine() const {
    return "Name of Config file to read : " + (folder_ / "home").string() + "\\zontrace.cfg";
  }

  static void makeKey() {
    win::RegistryKey key;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_WRITE, nullptr,
                              key.put(), nullptr),
              ERROR_SUCCESS);
    RegSetValueExA(key.get(), kOurs, 0, REG_SZ, nullptr, 0);
  }
  static void setInstallDir(const std::string& value) {
    makeKey();
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, kKey, "INSTALLDIR", REG_SZ, value.c_str(),
                    static_cast<DWORD>(value.size() + 1));
  }

  fs::path folder_;

private:
  static bool foreignKeyExists() {
    win::RegistryKey key;
    return RegOpenKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ, key.put()) == ERROR_SUCCESS &&
           RegQueryValueExA(key.get(), kOurs, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS;
  }
  static void deleteKey() {
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, kKey);
    RegDeleteKeyA(HKEY_LOCAL_MACHINE, kParentKey);
  }

  win::Handle oneAtATime_;
};

// -- The enabling event

TEST_F(UPOSLog, WithoutTheEventNoFileIsCreated) {
  const Outcome outcome = run({"trace", "unseen"});
  EXPECT_TRUE(outcome.ended);
  EXPECT_THAT(outcome.output, HasSubstr("trace done"));
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(UPOSLog, AnEventThatIsNotSignalledLeavesItOff) {
  run({"event", "trace", "unseen"});
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(UPOSLog, StaysOnOnceTheEventWasFoundSignalled) {
  EXPECT_TRUE(
      run({"event", "trace", "before", "signal", "trace", "first", "reset", "trace", "second"})
          .ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first", "second"));
}

TEST_F(UPOSLog, ASignalThatNoCallFoundLeavesItOff) {
  run({"event", "signal", "reset", "trace", "unseen"});
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(UPOSLog, OneSignalOfAnAutomaticEventIsEnough) {
  EXPECT_TRUE(run({"autoevent", "signal", "trace", "first", "trace", "second"}).ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first", "second"));
}

TEST_F(UPOSLog, EachCallTestsTheEvent) {
  EXPECT_TRUE(run({"event", "trace", "unseen", "signal", "trace", "seen"}).ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "seen"));
}

// The first call consumes the signal; later calls stay on without it.
TEST_F(UPOSLog, ASignalIsNoticedByACallBeforeItsReset) {
  EXPECT_TRUE(run({"event", "signal", "trace", "first", "reset", "trace", "second"}).ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first", "second"));
}

TEST_F(UPOSLog, EveryThreadNoticesTheSignal) {
  EXPECT_TRUE(run({"event", "trace", "unseen", "signal", "threads", "1", "1"}).ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "thread 0 line 0"));
}

TEST_F(UPOSLog, NeedsOnlyTheRightToWaitForTheEvent) {
  win::LocalMemory descriptor;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(
      "D:(A;;0x00100000;;;WD)", SDDL_REVISION_1, descriptor.put(), nullptr));
  SECURITY_ATTRIBUTES waitOnly{sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
  const win::Handle event(CreateEventA(&waitOnly, TRUE, TRUE, kEnablingEvent));
  ASSERT_TRUE(event);
  ASSERT_FALSE(win::Handle(OpenEventA(EVENT_ALL_ACCESS, FALSE, kEnablingEvent)));
  EXPECT_TRUE(run({"trace", "seen"}).ended);
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "seen"));
}

// -- The line

TEST_F(UPOSLog, ALineIsTheLocalTimeTwoBlanksTheMessageAndCrLf) {
  const std::time_t before = std::time(nullptr);
  runSwitchedOn({"trace", "first"});
  const std::time_t after = std::time(nullptr);
  Lines possible;
  for (std::time_t now = before; now <= after; ++now) {
    std::tm local{};
    localtime_s(&local, &now);
    possible.push_back(timeStamp(local) + " first\r\n");
  }
  const std::string content = readFile(log());
  const std::size_t lineStart = content.find("\r\n") + 2;
  EXPECT_THAT(possible, testing::Contains(content.substr(lineStart)));
  EXPECT_EQ(content.substr(kStampLength - 1, 3), "  N");
}

TEST_F(UPOSLog, ALongMessageIsNotTruncated) {
  runSwitchedOn({"long", "100000", "trace", "after"});
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, std::string(100000, 'x'), "after"));
}

TEST_F(UPOSLog, AHostileFormatIsWrittenUnchanged) {
  runSwitchedOn({"format", "%s%n%p %999999999d 100%% 50%"});
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "%s%n%p %999999999d 100% 50%"));
}

// A peer's text is written unchanged, so that it can be searched for.
TEST_F(UPOSLog, ALineIsTheMessageByteByByte) {
  const std::string text = "answer\r\n01/02/2026 03:04:05  [Process]\n1\r9\t\x1B[2K\x01\x7F\xE9";
  runSwitchedOn({"trace", text, "format", "\n1%%\x1B[2K"});
  const std::string content = readFile(log());
  EXPECT_THAT(content, HasSubstr("  " + text + "\r\n"));
  EXPECT_THAT(content, testing::EndsWith("  \n1%\x1B[2K\r\n"));
}

TEST_F(UPOSLog, LinesAreAppendedToAnExistingLog) {
  writeFile(log(), "11/23/2024 14:45:56  earlier\r\n");
  runSwitchedOn({"trace", "later"});
  EXPECT_THAT(logged(), ElementsAre("earlier", kNoConfiguration, "later"));
}

// -- The location of the log

TEST_F(UPOSLog, IsBesideTheProgramWithoutTheRegistryKey) {
  EXPECT_THAT(run({"path"}).output, HasSubstr(log().string() + "\r\n"));
}

TEST_F(UPOSLog, IsBesideTheProgramWithoutTheRegistryValue) {
  makeKey();
  runSwitchedOn({"trace", "first"});
  // The configuration is then read from the current directory.
  EXPECT_THAT(logged(),
              ElementsAre("Name of Config file to read : zontrace.cfg", kNoConfiguration, "first"));
}

TEST_F(UPOSLog, IsInTheLogFolderOfTheInstallation) {
  install(folder_ / "home");
  const std::string output = runSwitchedOn({"trace", "first", "path"});
  EXPECT_THAT(messages(installed()), ElementsAre(nameLine(), kNoConfiguration, "first"));
  EXPECT_THAT(output, HasSubstr((folder_ / "home").string() + "\\\\Log\\Quillmon.log\r\n"));
  EXPECT_FALSE(fs::exists(log()));
}

TEST_F(UPOSLog, AnInstallationPathOfMoreThanAHundredCharactersIsReadWhole) {
  const fs::path home = folder_ / std::string(110, 'h');
  install(home);
  writeFile(home / "zontrace.cfg", "FileSize=1000\r\n");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(messages(home / "Log" / "Quillmon.log"),
              ElementsAre("Name of Config file to read : " + home.string() + "\\zontrace.cfg",
                          "Key : FileSize, Value : 1000", "first"));
}

TEST_F(UPOSLog, IsBesideTheProgramWhenTheInstallationIsMissing) {
  setInstallDir((folder_ / "missing").string() + "\\");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(logged(), ElementsAre("Name of Config file to read : " +
                                        (folder_ / "missing").string() + "\\zontrace.cfg",
                                    kNoConfiguration, "first"));
}

TEST_F(UPOSLog, AnInstallationWithoutALogFolderIsStillConfigured) {
  fs::create_directories(folder_ / "home");
  writeFile(folder_ / "home" / "zontrace.cfg", "BackupCount=1\r\n");
  setInstallDir((folder_ / "home").string() + "\\");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(logged(), ElementsAre(nameLine(), "Key : BackupCount, Value : 1", "first"));
}

TEST_F(UPOSLog, NoSeparatorIsAddedBeforeTheConfigurationFile) {
  fs::create_directories(folder_ / "home" / "Log");
  setInstallDir((folder_ / "home").string());
  writeFile(folder_ / "homezontrace.cfg", "FileSize=4000\r\n");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(messages(installed()), ElementsAre("Name of Config file to read : " +
                                                     (folder_ / "home").string() + "zontrace.cfg",
                                                 "Key : FileSize, Value : 4000", "first"));
}

// -- The configuration

TEST_F(UPOSLog, TheConfigurationIsReadOnceAndItsAcceptedKeysAreTraced) {
  configure("# rotation\r\nFileSize : \"20000000\"\r\nfilesize=1\r\n\r\nBackupCount = 9\r\n"
            "BackupCount=-1\r\nOther=3");
  runSwitchedOn({"trace", "first", "trace", "second"});
  EXPECT_THAT(messages(installed()),
              ElementsAre(nameLine(), "Key : FileSize, Value : 10000000",
                          "Key : BackupCount, Value : 5", "Key : BackupCount, Value : 0", "first",
                          "second"));
}

TEST_F(UPOSLog, AnEmptyConfigurationChangesNothing) {
  configure("");
  runSwitchedOn({"trace", "first", "trace", "second"});
  EXPECT_THAT(messages(installed()), ElementsAre(nameLine(), "first", "second"));
}

TEST_F(UPOSLog, AnInvalidConfigurationChangesNothing) {
  configure("\xff\xfe=" + std::string(5000, '\0') + "\nFileSize\n=BackupCount=3\n\x1a");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(messages(installed()), ElementsAre(nameLine(), "first"));
}

// -- Rotation

TEST_F(UPOSLog, WithoutALimitTheLogGrowsAndNothingIsRotated) {
  configure("BackupCount=3\r\n");
  runSwitchedOn({"long", "5000", "long", "5000", "trace", "last"});
  EXPECT_EQ(messages(installed()).size(), 5U);
  EXPECT_FALSE(fs::exists(installed(1)));
}

TEST_F(UPOSLog, WithoutALimitEveryLineToAnExistingLogStartsARotationThread) {
  // The first line, about the configuration, creates the file.
  EXPECT_THAT(runSwitchedOn({"trace", "first", "countthreads"}), HasSubstr("\r\n1 threads\r\n"));
  EXPECT_THAT(runSwitchedOn({"trace", "a", "trace", "b", "countthreads"}),
              HasSubstr("\r\n3 threads\r\n"));
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first", kNoConfiguration, "a", "b"));
}

TEST_F(UPOSLog, WithinTheLimitNoRotationThreadIsStarted) {
  configure("FileSize=100000\r\n");
  EXPECT_THAT(runSwitchedOn({"trace", "first", "countthreads", "trace", "second", "countthreads"}),
              HasSubstr("trace done\r\n0 threads\r\n"));
}

TEST_F(UPOSLog, WithoutCopiesTheFullLogIsDeletedAndTheLineBeginsANewOne) {
  configure("FileSize=2000\r\nBackupCount=0\r\n");
  runSwitchedOn({"long", "1500", "trace", "fits", "long", "500"});
  EXPECT_THAT(messages(installed()), ElementsAre(std::string(500, 'x')));
  EXPECT_FALSE(fs::exists(installed(1)));
}

TEST_F(UPOSLog, TheLimitCountsStampMessageAndSizeButOneBlank) {
  configure("FileSize=1000\r\nBackupCount=1\r\n");
  runSwitchedOn({"trace", "measure"});
  const std::size_t size = fs::file_size(installed());
  const std::size_t overhead = kStampLength + 2;
  fs::remove(installed());

  // A size of exactly the limit is kept; the blank that is not counted exceeds it.
  runSwitchedOn({"trace", "measure", "long", std::to_string(1000 - overhead - size)});
  EXPECT_FALSE(fs::exists(installed(1)));
  EXPECT_EQ(fs::file_size(installed()), 1001U);
  fs::remove(installed());

  runSwitchedOn({"trace", "measure", "long", std::to_string(1001 - overhead - size)});
  EXPECT_EQ(fs::file_size(installed(1)), size);
  EXPECT_EQ(messages(installed()).size(), 1U);
}

TEST_F(UPOSLog, RotationRenamesTheCopiesAndDeletesTheOldest) {
  configure("BackupCount=2\r\nFileSize=700\r\n");
  writeFile(installed(3), "not a copy of this configuration");
  runSwitchedOn({"long", "601", "long", "602", "long", "603", "long", "604"});
  EXPECT_THAT(messages(installed()), ElementsAre(std::string(604, 'x')));
  EXPECT_THAT(messages(installed(1)), ElementsAre(std::string(603, 'x')));
  EXPECT_THAT(messages(installed(2)), ElementsAre(std::string(602, 'x')));
  EXPECT_EQ(readFile(installed(3)), "not a copy of this configuration");
}

TEST_F(UPOSLog, RotationFillsTheCopiesFromTheFirst) {
  configure("BackupCount=5\r\nFileSize=700\r\n");
  runSwitchedOn({"long", "601", "long", "602"});
  EXPECT_THAT(messages(installed()), ElementsAre(std::string(602, 'x')));
  EXPECT_THAT(messages(installed(1)), ElementsAre(std::string(601, 'x')));
  EXPECT_EQ(messages(installed(2)).front(), nameLine());
  EXPECT_FALSE(fs::exists(installed(3)));
}

TEST_F(UPOSLog, ALineLongerThanTheLimitIsWrittenWhole) {
  configure("BackupCount=1\r\nFileSize=100\r\n");
  runSwitchedOn({"long", "3000"});
  EXPECT_THAT(messages(installed()), ElementsAre(std::string(3000, 'x')));
}

TEST_F(UPOSLog, AFullLogOfAnEarlierRunIsDeletedWhenTheSizeIsReadBeforeTheCopies) {
  configure("FileSize=1000\r\nBackupCount=3\r\n");
  writeFile(installed(), std::string(2000, 'x') + "\r\n");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(messages(installed()),
              ElementsAre("Key : FileSize, Value : 1000", "Key : BackupCount, Value : 3", "first"));
  EXPECT_FALSE(fs::exists(installed(1)));
}

TEST_F(UPOSLog, AFullLogOfAnEarlierRunIsKeptWhenTheCopiesAreReadBeforeTheSize) {
  configure("BackupCount=3\r\nFileSize=1000\r\n");
  writeFile(installed(), std::string(2000, 'x') + "\r\n");
  runSwitchedOn({"trace", "first"});
  EXPECT_THAT(messages(installed()), ElementsAre("Key : FileSize, Value : 1000", "first"));
  EXPECT_THAT(readFile(installed(1)), testing::StartsWith("xxx"));
}

// -- The console

TEST_F(UPOSLog, IsSilentOnTheConsoleUnlessAskedToEcho) {
  EXPECT_THAT(runSwitchedOn({"trace", "first"}), Not(HasSubstr("first")));
}

TEST_F(UPOSLog, EchoesStampAndMessageToTheConsole) {
  const std::string output = runSwitchedOn({"echo", "trace", "first"});
  // One blank; the message's line end gets a second carriage return from the text stream.
  const std::size_t found = output.find("first\r\r\n");
  ASSERT_NE(found, std::string::npos) << output;
  EXPECT_EQ(output.substr(found - kStampLength, kStampLength),
            readFile(log()).substr(readFile(log()).find("first") - kStampLength - 1, kStampLength));
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first"));
}

TEST_F(UPOSLog, TheEchoReadsTheMessageAsAFormatAndTheFileDoesNot) {
  const std::string output = runSwitchedOn({"echo", "trace", "50%% of %s %n"});
  EXPECT_THAT(output, HasSubstr(" 50% of %s %n\r\r\n"));
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "50%% of %s %n"));
}

TEST_F(UPOSLog, EchoesNothingWhileOff) {
  EXPECT_THAT(run({"echo", "trace", "unseen"}).output, Not(HasSubstr("unseen")));
}

// -- Many writers

TEST_F(UPOSLog, ManyThreadsLoseNoLineAndNeverMix) {
  runSwitchedOn({"threads", "8", "50"});
  Lines expected{kNoConfiguration};
  for (int i = 0; i < 8; ++i) {
    for (int j = 0; j < 50; ++j) {
      expected.push_back("thread " + std::to_string(i) + " line " + std::to_string(j));
    }
  }
  EXPECT_THAT(logged(), testing::UnorderedElementsAreArray(expected));
}

TEST_F(UPOSLog, ConcurrentFirstWritersNeverOverlap) {
  // With an existing log each line starts a rotation while it holds the write event.
  writeFile(log(), "");
  EXPECT_THAT(runSwitchedOn({"slowevents", "threads", "6", "1", "overlaps"}),
              HasSubstr("\r\n0 overlaps\r\n"));
  EXPECT_EQ(logged().size(), 7U);
}

TEST_F(UPOSLog, ManyThreadsLoseNoLineInARotation) {
  configure("BackupCount=5\r\nFileSize=1500\r\n");
  runSwitchedOn({"threads", "4", "25"});
  Lines found;
  for (int copy = 0; copy <= 5; ++copy) {
    if (fs::exists(installed(copy))) {
      EXPECT_LE(fs::file_size(installed(copy)), 1501U);
      const Lines lines = messages(installed(copy));
      found.insert(found.end(), lines.begin(), lines.end());
    }
  }
  EXPECT_TRUE(fs::exists(installed(1)));
  std::sort(found.begin(), found.end());
  Lines expected{nameLine(), "Key : BackupCount, Value : 5", "Key : FileSize, Value : 1500"};
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 25; ++j) {
      expected.push_back("thread " + std::to_string(i) + " line " + std::to_string(j));
    }
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(found, expected);
}

// -- Names that other processes use

TEST_F(UPOSLog, WritersNeverOverlapThoughAMutexHasTheNameOfTheWriteEvent) {
  writeFile(log(), "");
  EXPECT_THAT(
      runSwitchedOn({"name", "mutex", "Write", "slowevents", "threads", "6", "5", "overlaps"}),
      HasSubstr("\r\n0 overlaps\r\n"));
  EXPECT_EQ(logged().size(), 31U);
}

TEST_F(UPOSLog, AnExistingWriteEventIsShared) {
  runSwitchedOn({"name", "auto", "Write", "threads", "6", "5"});
  EXPECT_EQ(logged().size(), 31U);
}

TEST_F(UPOSLog, RotationWorksThoughTheNameOfItsEventIsTaken) {
  for (const char* kind : {"mutex", "auto", "manual"}) {
    configure("BackupCount=5\r\nFileSize=1000\r\n");
    runSwitchedOn({"name", kind, "BackUp", "threads", "4", "10"});
    EXPECT_TRUE(fs::exists(installed(1))) << kind;
    std::size_t lines = 0;
    for (int copy = 0; copy <= 5 && fs::exists(installed(copy)); ++copy) {
      lines += messages(installed(copy)).size();
      fs::remove(installed(copy));
    }
    EXPECT_EQ(lines, 43U) << kind;
  }
}

TEST_F(UPOSLog, RotationEndsThoughAnotherProcessConsumesItsSignal) {
  configure("BackupCount=5\r\nFileSize=1000\r\n");
  runSwitchedOn({"thief", "BackUp", "threads", "1", "40"});
  EXPECT_TRUE(fs::exists(installed(1)));
  EXPECT_EQ(messages(installed()).back(), "thread 0 line 39");
}

TEST_F(UPOSLog, AMutexWithTheNameOfTheEnablingEventLeavesItOff) {
  const Outcome outcome = run({"name", "mutex", kEnablingEvent, "trace", "unseen"});
  EXPECT_TRUE(outcome.ended);
  EXPECT_THAT(outcome.output, HasSubstr("trace done"));
  EXPECT_FALSE(fs::exists(log()));
}

// -- Failures

TEST_F(UPOSLog, ALogThatCannotBeRenamedGrowsAndLosesNoLine) {
  configure("BackupCount=2\r\nFileSize=300\r\n");
  runSwitchedOn({"trace", "first", "pin", "threads", "1", "20"});
  EXPECT_FALSE(fs::exists(installed(2)));
  EXPECT_EQ(messages(installed()).back(), "thread 0 line 19");
  EXPECT_GT(fs::file_size(installed()), 600U);
}

TEST_F(UPOSLog, ADirectoryInPlaceOfACopyStopsTheRotationAndLosesNoLine) {
  configure("BackupCount=1\r\nFileSize=300\r\n");
  fs::create_directories(installed(1));
  runSwitchedOn({"threads", "1", "20"});
  EXPECT_TRUE(fs::is_directory(installed(1)));
  EXPECT_EQ(messages(installed()).size(), 23U);
}

TEST_F(UPOSLog, IsBesideTheProgramWhenTheLogOfTheInstallationIsLocked) {
  install(folder_ / "home");
  writeFile(installed(), "old\r\n");
  const win::Handle locked(CreateFileA(installed().string().c_str(), GENERIC_READ, 0, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(locked);
  runSwitchedOn({"trace", "text"});
  EXPECT_EQ(fs::file_size(installed()), 5U);
  ASSERT_FALSE(logged().empty());
  EXPECT_EQ(logged().back(), "text");
}

TEST_F(UPOSLog, AnUnopenableLogLosesTheLineAndBlocksTheNextCall) {
  runUntilItHangs({"trace", "first", "occupy", "trace", "lost", "path", "trace", "waits"},
                  "Quillmon.log\r\npath done\r\n");
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first"));
}

TEST_F(UPOSLog, AnUnopenableLogIsStillEchoed) {
  runUntilItHangs({"trace", "first", "occupy", "echo", "trace", "lost", "trace", "waits"},
                  " lost\r\r\ntrace done\r\n");
}

TEST_F(UPOSLog, ADirectoryInPlaceOfTheLogBlocksTheFirstCall) {
  // The line about the configuration keeps the write event, which the call itself then waits for.
  fs::create_directories(log());
  runUntilItHangs({"trace", "waits"}, "signal done\r\n");
}

TEST_F(UPOSLog, ARotationThatCannotStartBlocksItsLineAndWritesNeitherItNorTheError) {
  runUntilItHangs({"trace", "first", "nothreads", "trace", "waits"}, "nothreads done\r\n");
  EXPECT_THAT(logged(), ElementsAre(kNoConfiguration, "first"));
}

TEST_F(UPOSLog, ALineLostForLackOfMemoryReleasesTheWriteEvent) {
  const std::string output = runSwitchedOn({"shortage", "trace", "after"});
  EXPECT_THAT(output, Not(HasSubstr("\r\n0 shortages")));
  EXPECT_THAT(logged(), testing::Contains("after"));
}

TEST_F(UPOSLog, LackOfMemoryInEchoOrRotationReleasesTheWriteEvent) {
  configure("BackupCount=2\r\nFileSize=300\r\n");
  const std::string output = runSwitchedOn({"echo", "shortage", "shortage", "trace", "after"});
  EXPECT_THAT(output, Not(HasSubstr("\r\n0 shortages")));
  EXPECT_THAT(messages(installed()), testing::Contains("after"));
}

TEST_F(UPOSLog, TracesWhileTheProcessEnds) {
  runSwitchedOn({"trace", "first", "atexit"});
  EXPECT_THAT(logged(), testing::Contains("from a static destructor"));
}

} // namespace
