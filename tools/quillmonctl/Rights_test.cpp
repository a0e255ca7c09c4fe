#include "quillmonctl/Rights.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace ctl;
using Entry = PathRights::Entry;

constexpr char kSystem[] = "S-1-5-18";
constexpr char kAdministrators[] = "S-1-5-32-544";
constexpr char kUsers[] = "S-1-5-32-545";
constexpr char kAuthenticated[] = "S-1-5-11";
constexpr char kEveryone[] = "S-1-1-0";
constexpr char kCashier[] = "S-1-5-21-1-2-3-1001";
constexpr char kInstaller[] = "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

constexpr std::uint32_t kFull = 0x1f01ff;
constexpr std::uint32_t kModify = 0x1301bf;
constexpr std::uint32_t kRead = 0x1200a9;
constexpr std::uint32_t kAddFolder = 0x4;

Entry allow(const char* sid, std::uint32_t rights) {
  return {true, false, false, rights, sid, ""};
}
Entry deny(const char* sid, std::uint32_t rights) {
  return {false, false, false, rights, sid, ""};
}
Entry inherited(const char* sid, std::uint32_t rights) {
  return {true, true, false, rights, sid, ""};
}
Entry forChildren(const char* sid, std::uint32_t rights) {
  return {true, false, true, rights, sid, ""};
}

/// What Windows gives to a drive, to its folder for programs, and to what is in there.
const std::vector<Entry> kOfDrive = {allow(kAdministrators, kFull), allow(kSystem, kFull),
                                     allow(kUsers, kRead), allow(kAuthenticated, kAddFolder),
                                     forChildren(kAuthenticated, kModify)};
const std::vector<Entry> kOfPrograms = {allow(kInstaller, kFull), allow(kSystem, kModify),
                                        allow(kAdministrators, kModify), allow(kUsers, kRead),
                                        forChildren("S-1-3-0", 0x10000000)};
const std::vector<Entry> kOfProgram = {inherited(kInstaller, kFull), inherited(kSystem, kFull),
                                       inherited(kAdministrators, kFull), inherited(kUsers, kRead)};
/// What a folder gets that somebody makes in the drive.
const std::vector<Entry> kOfFolderInDrive = {inherited(kAdministrators, kFull),
                                             inherited(kSystem, kFull), inherited(kUsers, kRead),
                                             inherited(kAuthenticated, kModify)};

constexpr char kProgram[] = "C:\\Program Files\\Quillmon\\quillmon.exe";
constexpr char kConfiguration[] = "C:\\POS\\JavaPOS\\Config\\quillmon.properties";

/// A machine on which all is well.
std::vector<PathRights> machine() {
  std::vector<PathRights> paths = pathsAround({kProgram, kConfiguration});
  for (PathRights& path : paths) {
    path.ownerSid = path.isOurs ? kAdministrators : kInstaller;
    path.entries = path.path == "C:\\"                ? kOfDrive
                   : path.path == "C:\\Program Files" ? kOfPrograms
                                                      : kOfProgram;
  }
  return paths;
}

PathRights& find(std::vector<PathRights>& paths, std::string_view path) {
  return *std::find_if(paths.begin(), paths.end(),
                       [&](const PathRights& each) { return each.path == path; });
}

TEST(Rights, EachPathComesOnceAfterTheFoldersAboveIt) {
  std::vector<std::string> found;
  for (const PathRights& path :
       pathsAround({"C:\\Quillmon\\quillmon.exe", "c:\\quillmon\\Log\\Quillmon.log"})) {
    found.push_back((path.isOurs ? "ours " : "above ") + path.path +
                    (path.isFolder ? " (folder)" : ""));
  }
  EXPECT_EQ(found, (std::vector<std::string>{"above C:\\ (folder)", "ours C:\\Quillmon (folder)",
                                             "ours C:\\Quillmon\\quillmon.exe",
                                             "ours c:\\quillmon\\Log (folder)",
                                             "ours c:\\quillmon\\Log\\Quillmon.log"}));
}

TEST(Rights, WhatWindowsGivesToItsOwnFoldersIsNoProblem) {
  EXPECT_TRUE(problemsOf(machine(), {}).empty());
}

TEST(Rights, EachFaultIsFoundWithTheCommandThatMendsIt) {
  struct Row {
    const char* label;
    const char* path;
    void (*spoil)(PathRights& path);
    bool isGrave;
    const char* finding;
    const char* advice;
  };
  const Row rows[] = {
      {"somebody else's folder", "C:\\POS", [](PathRights& path) { path.ownerSid = kCashier; },
       true, "C:\\POS belongs to S-1-5-21-1-2-3-1001", "takeown /f \"C:\\POS\" /a"},
      {"the configuration for everyone", kConfiguration,
       [](PathRights& path) { path.entries.push_back(allow(kEveryone, 0x2)); }, true,
       "S-1-1-0 may change C:\\POS\\JavaPOS\\Config\\quillmon.properties",
       "icacls \"C:\\POS\\JavaPOS\\Config\\quillmon.properties\" /grant:r \"*S-1-1-0:RX\""},
      {"a folder that may be renamed", "C:\\POS",
       [](PathRights& path) { path.entries.push_back(allow(kUsers, 0x10000)); }, true,
       "S-1-5-32-545 may replace what is in C:\\POS",
       "icacls \"C:\\POS\" /grant:r \"*S-1-5-32-545:(OI)(CI)RX\""},
      {"a generic right", "C:\\Program Files\\Quillmon",
       [](PathRights& path) { path.entries.push_back(allow(kUsers, 0x40000000)); }, true,
       "S-1-5-32-545 may change C:\\Program Files\\Quillmon",
       "icacls \"C:\\Program Files\\Quillmon\" /grant:r \"*S-1-5-32-545:(OI)(CI)RX\""},
      {"no access list", "C:\\POS\\JavaPOS\\Config",
       [](PathRights& path) {
         path.hasAccessList = false;
         path.entries.clear();
       },
       true, "everybody may change C:\\POS\\JavaPOS\\Config",
       "icacls \"C:\\POS\\JavaPOS\\Config\" /reset"},
      {"a junction", "C:\\POS\\JavaPOS", [](PathRights& path) { path.leadsElsewhere = true; },
       false, "C:\\POS\\JavaPOS leads elsewhere; what lies above there is not judged",
       "fsutil reparsepoint query \"C:\\POS\\JavaPOS\" shows where; rmdir \"C:\\POS\\JavaPOS\" "
       "removes the link alone."},
      {"an unreadable one", kProgram,
       [](PathRights& path) {
         path.error = SystemError{SystemError::Kind::Win32, 5, "Access denied"};
       },
       false, "C:\\Program Files\\Quillmon\\quillmon.exe cannot be judged: error 5: Access denied",
       "Run quillmonctl doctor as administrator."},
  };
  for (const Row& row : rows) {
    std::vector<PathRights> paths = machine();
    row.spoil(find(paths, row.path));
    const std::vector<RightsProblem> problems = problemsOf(paths, {});
    ASSERT_EQ(problems.size(), 1U) << row.label;
    EXPECT_EQ(problems[0].isGrave, row.isGrave) << row.label;
    EXPECT_EQ(problems[0].finding, row.finding) << row.label;
    EXPECT_EQ(problems[0].advice, row.advice) << row.label;
  }
}

TEST(Rights, WhatIsInheritedIsMendedWhereItBegins) {
  std::vector<PathRights> paths = machine();
  for (PathRights& path : paths) {
    if (path.path.starts_with("C:\\POS")) {
      path.entries = kOfFolderInDrive;
    }
  }
  const std::vector<RightsProblem> problems = problemsOf(paths, {});
  ASSERT_EQ(problems.size(), 1U);
  EXPECT_EQ(problems[0].finding, "S-1-5-11 may replace what is in C:\\POS");
  EXPECT_EQ(problems[0].advice, "icacls \"C:\\POS\" /inheritance:d, then icacls \"C:\\POS\" "
                                "/grant:r \"*S-1-5-11:(OI)(CI)RX\"");
}

TEST(Rights, ARootThatOthersMayDeleteIsNoProblem) {
  std::vector<PathRights> paths = machine();
  find(paths, "C:\\").entries.push_back(allow(kAuthenticated, kModify));
  EXPECT_TRUE(problemsOf(paths, {}).empty());
  find(paths, "C:\\").entries.push_back(allow(kAuthenticated, 0x40));
  EXPECT_EQ(problemsOf(paths, {}).size(), 1U);
}

TEST(Rights, AFolderThatIsMissingIsAProblemWhereAnybodyMayMakeIt) {
  std::vector<PathRights> paths = machine();
  for (PathRights& path : paths) {
    path.exists = !path.path.starts_with("C:\\POS");
  }
  const std::vector<RightsProblem> problems = problemsOf(paths, {});
  ASSERT_EQ(problems.size(), 1U);
  EXPECT_EQ(problems[0].finding, "C:\\POS is missing, and S-1-5-11 may make it");
  EXPECT_TRUE(problems[0].advice.starts_with("mkdir \"C:\\POS\", then icacls \"C:\\POS\" "));

  find(paths, "C:\\").entries = kOfProgram;
  EXPECT_TRUE(problemsOf(paths, {}).empty());
}

TEST(Rights, AFileThatIsMissingInAFolderOfAdministratorsIsNoProblem) {
  std::vector<PathRights> paths = machine();
  find(paths, kConfiguration).exists = false;
  EXPECT_TRUE(problemsOf(paths, {}).empty());
}

TEST(Rights, ARefusalTakesAwayWhatIsGrantedAfterIt) {
  struct Row {
    std::vector<Entry> entries;
    bool isProblem;
  };
  for (const Row& row : {Row{{deny(kUsers, kFull), allow(kUsers, kModify)}, false},
                         Row{{deny(kEveryone, kFull), allow(kUsers, kModify)}, false},
                         Row{{deny(kUsers, 0x2), allow(kUsers, kModify)}, true},
                         Row{{deny(kCashier, kFull), allow(kUsers, kModify)}, true},
                         Row{{allow(kUsers, kModify), deny(kUsers, kFull)}, true}}) {
    std::vector<PathRights> paths = machine();
    find(paths, kConfiguration).entries = row.entries;
    EXPECT_EQ(problemsOf(paths, {}).size(), row.isProblem ? 1U : 0U);
  }
}

TEST(Rights, AnAccountThatIsKnownToBeAnAdministratorsIsTrusted) {
  std::vector<PathRights> paths = machine();
  for (PathRights& path : paths) {
    path.ownerSid = kCashier;
    path.entries.push_back(allow(kCashier, kFull));
  }
  EXPECT_TRUE(problemsOf(paths, {kCashier}).empty());
  EXPECT_FALSE(problemsOf(paths, {}).empty());
}

TEST(Rights, ADomainsAdministratorsAreTrusted) {
  for (const char* const sid : {"S-1-5-21-1-2-3-500", "S-1-5-21-1-2-3-512", "S-1-5-21-1-2-3-519"}) {
    std::vector<PathRights> paths = machine();
    find(paths, kProgram).ownerSid = sid;
    find(paths, kProgram).entries.push_back(allow(sid, kFull));
    EXPECT_TRUE(problemsOf(paths, {}).empty()) << sid;
  }
}

TEST(Rights, AnAccountIsCalledByItsNameWhereItHasOne) {
  std::vector<PathRights> paths = machine();
  find(paths, kProgram).entries.push_back({true, false, false, kModify, kUsers, "BUILTIN\\Users"});
  find(paths, kProgram).ownerSid = kCashier;
  find(paths, kProgram).ownerName = "TILL1\\cashier";
  const std::vector<RightsProblem> problems = problemsOf(paths, {});
  ASSERT_EQ(problems.size(), 2U);
  EXPECT_TRUE(problems[0].finding.ends_with(" belongs to TILL1\\cashier"));
  EXPECT_TRUE(problems[1].finding.starts_with("BUILTIN\\Users may change "));
}

} // namespace
