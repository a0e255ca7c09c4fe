#include "quillmonctl/MofCompiler.h"

#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"

#include <fmt/format.h>

namespace ctl {
namespace {

/// The last line that says something: the compiler puts its reason there.
std::string lastLine(const std::string& output) {
  std::string words = utf8FromAnsi(output);
  words.erase(words.find_last_not_of(" \t\r\n") + 1);
  words.erase(0, words.find_last_of("\r\n") + 1);
  return printable(words);
}

const char* const kAdvice =
    "Run mofcomp on that file by hand, from an elevated prompt, and read what it says; check WMI's "
    "store with winmgmt /verifyrepository.";

void requireFile(const std::string& path) {
  if (!exists(path)) {
    failWin32(fmt::format("looking for {}", path), ERROR_FILE_NOT_FOUND,
              "Put the product's MOF files beside quillmonctl.exe, or name their folder with "
              "--mof-folder.");
  }
}

/// Throws Failure unless the compiler ends with 0. Returns what it said.
std::string runCompiler(const std::string& file) {
  requireFile(file);
  const std::string compiler = systemFolder() + "\\wbem\\mofcomp.exe";
  if (!exists(compiler)) {
    failWin32(fmt::format("looking for WMI's compiler {}", compiler), ERROR_FILE_NOT_FOUND,
              "WMI is not whole on this machine: repair Windows' WMI (winmgmt /verifyrepository).");
  }
  const ProgramResult ended = runProgram(compiler, {file});
  std::string said = fmt::format("mofcomp ended with code {}{}{}", ended.exitCode,
                                 ended.output.empty() ? "" : " and said: ", lastLine(ended.output));
  if (ended.exitCode != 0) {
    throw Failure(fmt::format("compiling {}: {}", file, said), kAdvice);
  }
  return said;
}

} // namespace

MofFiles MofFiles::in(const std::string& folder) {
  const std::string place = folder.empty() ? programFolder() : absolutePath(folder);
  const std::string samples = place + "\\samples\\inventory\\";
  return {place + "\\quillmon.mof", place + "\\quillmon-uninstall.mof",
          samples + "events-to-eventlog.mof", samples + "no-events-to-eventlog.mof"};
}

RegistrationState registrationState() {
  const Survey::Wmi wmi = surveyRegistration();
  RegistrationState result;
  if (wmi.error) {
    throw Failure("reading WMI's classes back", *wmi.error, adviceFor(*wmi.error));
  }
  result.present = wmi.classes + wmi.registrations;
  result.missing = wmi.missingClasses.size() + wmi.missingRegistrations.size();
  if (result.missing > 0) {
    result.firstMissing =
        wmi.missingClasses.empty() ? wmi.missingRegistrations[0] : wmi.missingClasses[0];
  }
  return result;
}

void MofFiles::requireClasses() const {
  requireFile(install);
  requireFile(uninstall);
}

void compileMof(const std::string& file, bool wanted) {
  const std::string said = runCompiler(file);
  // Its exit code alone proves nothing: it is 0 for a file that it passed over, too.
  const RegistrationState now = registrationState();
  if (wanted && now.missing > 0) {
    throw Failure(fmt::format("reading the classes back after compiling {}: {} of {} are missing, "
                              "{} first ({})",
                              file, now.missing, now.missing + now.present, now.firstMissing, said),
                  kAdvice);
  }
  if (!wanted && now.present > 0) {
    throw Failure(fmt::format("reading the classes back after compiling {}: {} are still there "
                              "({})",
                              file, now.present, said),
                  kAdvice);
  }
}

bool hasEventLog() {
  return Wmi(L"root\\subscription")
      .find("NTEventLogEventConsumer.Name=\"QuillmonEvents\"")
      .has_value();
}

void compileEventLog(const MofFiles& files, bool wanted) {
  const std::string file = wanted ? files.eventLog : files.noEventLog;
  const std::string said = runCompiler(file);
  if (hasEventLog() != wanted) {
    throw Failure(fmt::format("reading the subscription back after compiling {}: it is {} there "
                              "({})",
                              file, wanted ? "not" : "still", said),
                  kAdvice);
  }
}

} // namespace ctl
