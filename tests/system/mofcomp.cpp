// mofcomp FILE: stands in for Windows' compiler of WMI classes, which Wine has in name only.
// Applies the file to what was compiled before, keeps a copy of it beside this program, and adds
// the copy to what the WMI stand-in reads: the file itself may change. A file with #pragma
// autorecover is noted in the list of those that WMI compiles again. As documented: 0 when the file
// was compiled, 3 for an error in it or a change that its classes do not bear, 2 for a wrong
// command line.
//
// DWORD MofcompExit below the stand-in's key: changes nothing and ends with that code.

#include "MofReader.h"
#include "win/Handles.h"

#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kKey = "SOFTWARE\\QuillmonTest\\WmiHost";
constexpr const char* kWmiKey = "SOFTWARE\\Microsoft\\WBEM\\CIMOM";
constexpr const char* kRecovered = "Autorecover MOFs";

std::string value(const char* path, const char* name, DWORD type) {
  std::string text(65536, '\0');
  auto size = static_cast<DWORD>(text.size());
  const LSTATUS found =
      RegGetValueA(HKEY_LOCAL_MACHINE, path, name, type, nullptr, text.data(), &size);
  text.resize(found == ERROR_SUCCESS && size > 0 ? size - 1 : 0);
  return text;
}

void setValue(const char* path, const char* name, DWORD type, const std::string& text) {
  win::RegistryKey key;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(),
                  nullptr);
  RegSetValueExA(key.get(), name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                 static_cast<DWORD>(text.size() + 1));
}

std::vector<std::string> compiledBefore() {
  std::vector<std::string> files;
  std::istringstream list(value(kKey, "Mof", RRF_RT_REG_SZ));
  for (std::string one; std::getline(list, one, ';');) {
    if (!one.empty()) {
      files.push_back(one);
    }
  }
  return files;
}

std::string contentOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

/// The copy comes last, and only once.
void keep(std::vector<std::string> files, const std::string& text) {
  std::string copy(MAX_PATH, '\0');
  copy.resize(GetModuleFileNameA(nullptr, copy.data(), MAX_PATH));
  copy.resize(copy.rfind('\\') + 1);
  copy.append(std::to_string(std::hash<std::string>()(text))).append(".mof");
  std::ofstream(copy, std::ios::binary) << text;
  std::erase(files, copy);
  files.push_back(copy);
  std::string list;
  for (const std::string& file : files) {
    list.append(list.empty() ? "" : ";").append(file);
  }
  setValue(kKey, "Mof", REG_SZ, list);
}

/// The list is of texts, each with a zero at its end, and one more at the end of all.
void noteForRecovery(const std::string& file) {
  const std::string entry = file + '\0';
  std::string list = value(kWmiKey, kRecovered, RRF_RT_REG_MULTI_SZ);
  if (('\0' + list).find('\0' + entry) == std::string::npos) {
    setValue(kWmiKey, kRecovered, REG_MULTI_SZ, list + entry);
  }
}

} // namespace

int main(int argc, char* argv[]) {
  std::cout << "Microsoft (R) MOF Compiler (stand-in)\r\n";
  if (argc != 2) {
    return 2;
  }
  DWORD exitCode = 0;
  DWORD size = sizeof exitCode;
  if (RegGetValueA(HKEY_LOCAL_MACHINE, kKey, "MofcompExit", RRF_RT_REG_DWORD, nullptr, &exitCode,
                   &size) == ERROR_SUCCESS &&
      exitCode != 0) {
    std::cout << "An error occurred while opening the namespace\r\n";
    return static_cast<int>(exitCode);
  }
  const std::vector<std::string> files = compiledBefore();
  wmi_host::Repository repository = wmi_host::systemRepository();
  try {
    for (const std::string& file : files) {
      wmi_host::readMofFile(repository, file, file);
    }
    wmi_host::readMofFile(repository, argv[1], argv[1]);
  } catch (const std::runtime_error& error) {
    std::cout << error.what() << "\r\nCompiler returned error 0x80044000\r\n";
    return 3;
  }
  const std::string text = contentOf(argv[1]);
  keep(files, text);
  if (text.find("#pragma autorecover") != std::string::npos) {
    noteForRecovery(argv[1]);
  }
  std::cout << "Parsing MOF file: " << argv[1]
            << "\r\nStoring data in the repository...\r\nDone!\r\n";
  return 0;
}
