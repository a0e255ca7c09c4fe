#include "trace/LogLocation.h"

#include "win/Handles.h"

#include <algorithm>
#include <utility>

namespace trace {

LogLocation installedLogLocation(bool (*isWritable)(const std::string& path)) {
  LogLocation location;
  win::RegistryKey key;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Veltran\\Veltran Kestrune", 0, KEY_READ,
                    key.put()) != ERROR_SUCCESS) {
    return location;
  }
  std::string value(100, '\0');
  auto size = static_cast<DWORD>(value.size());
  LSTATUS result = ERROR_SUCCESS;
  while ((result = RegQueryValueExA(key.get(), "INSTALLDIR", nullptr, nullptr,
                                    reinterpret_cast<BYTE*>(value.data()), &size)) ==
         ERROR_MORE_DATA) {
    value.assign(size + 20, '\0');
    size = static_cast<DWORD>(value.size());
  }
  value.resize(result == ERROR_SUCCESS ? std::min<std::size_t>(value.find('\0'), size) : 0);
  location.installDir = std::make_unique<const std::string>(value);
  if (result == ERROR_SUCCESS) {
    std::string path = value + "\\Log" + "\\Quillmon.log";
    if (isWritable(path)) {
      location.path = std::move(path);
    }
  }
  return location;
}

std::string fallbackLogPath(const std::string& program) {
  return program.substr(0, program.rfind('\\')) + "\\Quillmon.log";
}

std::string traceConfigurationFile(const std::string& installDir) {
  return installDir + "zontrace.cfg";
}

} // namespace trace
