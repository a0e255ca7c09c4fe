#include "quillmonctl/MofCompiler.h"

#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"

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

std::string requireFile(const std::string& path) {
  if (!exists(path)) {
    failWin32(fmt::format("looking for {}", path), ERROR_FILE_NOT_FOUND,
              "Put the product's MOF files beside quillmonctl.exe, or name their folder with "
              "--mof-folder.");
  }
  return path;
}

} // namespace

MofFiles MofFiles::in(const std::string& folder) {
  const std::string place = folder.empty() ? programFolder() : absolutePath(folder);
  return {requireFile(place + "\\quillmon.mof"), requireFile(place + "\\quillmon-uninstall.mof")};
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

void compileMof(const std::string& file, bool wanted) {
  const std::string compiler = systemFolder() + "\\wbem\\mofcomp.exe";
  if (!exists(compiler)) {
    failWin32(fmt::format("looking for WMI's compiler {}", compiler), ERROR_FILE_NOT_FOUND,
              "WMI is not whole on this machine: repair Windows' WMI (winmgmt /verifyrepository).");
  }
  const ProgramResult ended = runProgram(compiler, {file});
  const std::string said =
      fmt::format("mofcomp ended with code {}{}{}", ended.exitCode,
                  ended.output.empty() ? "" : " and said: ", lastLine(ended.output));
  const char* const advice =
      "Run mofcomp on that file by hand, from an elevated prompt, and read what it says; check "
      "WMI's store with winmgmt /verifyrepository.";
  if (ended.exitCode != 0) {
    throw Failure(fmt::format("compiling {}: {}", file, said), advice);
  }
  // Its exit code alone proves nothing: it is 0 for a file that it passed over, too.
  const RegistrationState now = registrationState();
  if (wanted && now.missing > 0) {
    throw Failure(fmt::format("reading the classes back after compiling {}: {} of {} are missing, "
                              "{} first ({})",
                              file, now.missing, now.missing + now.present, now.firstMissing, said),
                  advice);
  }
  if (!wanted && now.present > 0) {
    throw Failure(fmt::format("reading the classes back after compiling {}: {} are still there "
                              "({})",
                              file, now.present, said),
                  advice);
  }
}

} // namespace ctl
