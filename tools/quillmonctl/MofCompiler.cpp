#include "quillmonctl/MofCompiler.h"

#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofClasses.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"
#include "win/Handles.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

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

/// WMI has a list of files that it compiles again; the compiler adds to it and never removes.
void forgetRecovery(const std::string& file) {
  win::RegistryKey key;
  const DWORD rights = KEY_QUERY_VALUE | KEY_SET_VALUE;
  const wchar_t* const name = L"Autorecover MOFs";
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\WBEM\\CIMOM", 0, rights,
                    key.put()) != ERROR_SUCCESS) {
    return;
  }
  DWORD size = 0;
  RegGetValueW(key.get(), nullptr, name, RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &size);
  std::wstring list(size / sizeof(wchar_t), L'\0');
  if (list.empty() || RegGetValueW(key.get(), nullptr, name, RRF_RT_REG_MULTI_SZ, nullptr,
                                   list.data(), &size) != ERROR_SUCCESS) {
    return;
  }
  std::wstring kept;
  for (const wchar_t* entry = list.c_str(); *entry != L'\0';
       entry += std::wstring_view(entry).size() + 1) {
    if (!equalsIgnoreCase(utf8(entry), file)) {
      kept.append(entry).push_back(L'\0');
    }
  }
  kept.push_back(L'\0');
  const LSTATUS result =
      RegSetValueExW(key.get(), name, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(kept.data()),
                     static_cast<DWORD>(kept.size() * sizeof(wchar_t)));
  if (result != ERROR_SUCCESS) {
    failWin32("changing WMI's list of MOF files (Autorecover MOFs)", static_cast<DWORD>(result));
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

void removeClasses(const MofFiles& files) {
  compileMof(files.uninstall, false);
  forgetRecovery(files.install);
}

void requireNoForeignClass() {
  const Survey::Wmi wmi = surveyRegistration();
  if (wmi.error || wmi.registrations > 0 || wmi.classes == 0) {
    return; // an error is said by what comes next
  }
  const auto* const found =
      std::find_if(std::begin(kMofClasses), std::end(kMofClasses), [&](const MofClass& each) {
        return std::find(wmi.missingClasses.begin(), wmi.missingClasses.end(), each.name) ==
               wmi.missingClasses.end();
      });
  throw Failure(fmt::format("checking WMI's classes: {} is already there, without the provider {}",
                            found->name, kProvider),
                "Find out which program made it. If nobody needs it, compile "
                "quillmon-uninstall.mof with mofcomp, which removes it, and try again.");
}

bool hasEventLog() {
  return Wmi(L"root\\subscription").has("NTEventLogEventConsumer.Name=\"QuillmonEvents\"");
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
