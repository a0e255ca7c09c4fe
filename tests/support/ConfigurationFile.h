#pragma once

#include "win/Configuration.h"
#include "win/Handles.h"

#include <fstream>
#include <string>

namespace test_support {

/// The service's real configuration file on drive C of the prefix, for one test. Tests of several
/// programs may run at once on one prefix, so the file is held until the test ends.
class ConfigurationFile {
public:
  ConfigurationFile() : turn_(CreateMutexA(nullptr, FALSE, "quillmon.properties")) {
    WaitForSingleObject(turn_.get(), INFINITE);
    SetCurrentDirectoryA("C:\\");
    CreateDirectoryA("C:\\POS", nullptr);
    CreateDirectoryA("C:\\POS\\JavaPOS", nullptr);
    CreateDirectoryA("C:\\POS\\JavaPOS\\Config", nullptr);
    DeleteFileA(configuration::kFile);
  }
  ConfigurationFile(const ConfigurationFile&) = delete;
  ConfigurationFile& operator=(const ConfigurationFile&) = delete;
  ~ConfigurationFile() {
    DeleteFileA(configuration::kFile);
    ReleaseMutex(turn_.get());
  }

  static void write(const std::string& lines) {
    std::ofstream(configuration::kFile) << "[default]\r\n" << lines;
  }

private:
  win::Handle turn_;
};

} // namespace test_support
