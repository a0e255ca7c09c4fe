// mofcomp FILE: stands in for Windows' compiler of WMI classes, which Wine has in name only. Reads
// the file as the WMI stand-in will, and adds it to what that one reads. As documented: 0 when the
// file was compiled, 3 for a syntax error, 2 for a wrong command line.
//
// DWORD MofcompExit below the stand-in's key: changes nothing and ends with that code.

#include "MofReader.h"
#include "win/Handles.h"

#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

constexpr const char* kKey = "SOFTWARE\\QuillmonTest\\WmiHost";

std::string filesSoFar() {
  char text[4096] = "";
  DWORD size = sizeof text;
  RegGetValueA(HKEY_LOCAL_MACHINE, kKey, "Mof", RRF_RT_REG_SZ, nullptr, text, &size);
  return text;
}

/// The file comes last, and only once.
std::string withFile(const std::string& files, const std::string& file) {
  std::string result;
  std::istringstream list(files);
  for (std::string one; std::getline(list, one, ';');) {
    if (!one.empty() && one != file) {
      result += one + ";";
    }
  }
  return result + file;
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
  wmi_host::Repository repository = wmi_host::systemRepository();
  try {
    wmi_host::readMofFile(repository, argv[1], argv[1]);
  } catch (const std::runtime_error& error) {
    std::cout << error.what() << "\r\nCompiler returned error 0x80044000\r\n";
    return 3;
  }
  const std::string files = withFile(filesSoFar(), argv[1]);
  win::RegistryKey key;
  RegCreateKeyExA(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(),
                  nullptr);
  RegSetValueExA(key.get(), "Mof", 0, REG_SZ, reinterpret_cast<const BYTE*>(files.c_str()),
                 static_cast<DWORD>(files.size() + 1));
  std::cout << "Parsing MOF file: " << argv[1]
            << "\r\nStoring data in the repository...\r\nDone!\r\n";
  return 0;
}
