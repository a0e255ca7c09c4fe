#pragma once

#include <memory>
#include <string>

/// Where the trace log and its configuration lie. Text in the system's ANSI code page. Any thread.
struct LogPlace {
  std::string path;
  /// INSTALLDIR as it stands in the registry, empty where the key has none; null without the key.
  std::unique_ptr<const std::string> installDir;
};

/// The place that the registry names; the path is empty where there is none or `isWritable` says
/// no to it.
LogPlace installedLog(bool (*isWritable)(const std::string& path));

/// The log beside the program, for when the registry names no usable one.
std::string logBeside(const std::string& program);

/// Nothing is put between the two: INSTALLDIR ends with a backslash.
std::string traceConfigurationFile(const std::string& installDir);
