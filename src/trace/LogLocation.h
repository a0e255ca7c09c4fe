#pragma once

#include <memory>
#include <string>

namespace trace {

/// The location of the trace log and of its configuration, in the system's ANSI code page.
/// Threads: any. Errors: std::bad_alloc.
struct LogLocation {
  std::string path;
  /// The registry value INSTALLDIR; empty if the key lacks it, null if there is no key.
  std::unique_ptr<const std::string> installDir;
};

/// The location below INSTALLDIR; the path is empty if there is none or it is not writable.
LogLocation installedLogLocation(bool (*isWritable)(const std::string& path));

/// The path of a log in the program's folder, the fallback.
std::string fallbackLogPath(const std::string& program);

/// The path of zontrace.cfg. Adds no separator: INSTALLDIR ends with a backslash. An empty
/// one makes the path relative to the current folder.
std::string traceConfigurationFile(const std::string& installDir);

} // namespace trace
