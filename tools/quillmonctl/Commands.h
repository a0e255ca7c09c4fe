#pragma once

#include "quillmonctl/Failure.h"

#include <cstddef>
#include <string>

/// The commands, with the options that they were given. Each prints its result, with `json` as
/// JSON, and throws Failure.
namespace ctl {

/// `expected`: a file of expectDevices; empty: nothing is expected.
ExitCode showStatus(bool json, unsigned seconds, const std::string& expected);

ExitCode listDevices(bool json, const std::string& name, unsigned seconds);
ExitCode getDevice(bool json, const std::string& name);
ExitCode watchDevices(bool json, unsigned seconds, unsigned count);

ExitCode expectDevices(bool json, unsigned seconds, const std::string& file);

struct MetricsOptions {
  unsigned timeout = 10;
  std::string textfile;    ///< empty: to standard output
  unsigned watchEvery = 0; ///< seconds between two replacements of the file; 0: one, and the end
  std::string expected;    ///< as in showStatus
};
ExitCode exportMetrics(bool json, const MetricsOptions& options);

/// Has quillmon-till.exe, which has the service's reader, check the document that the command line
/// names.
ExitCode checkDocument();

ExitCode checkConfiguration(bool json);
ExitCode showConfiguration(bool json);
ExitCode setConfiguration(bool json, const std::string& name, const std::string& value);

ExitCode switchTraceOn(bool json, bool untilSeen);
ExitCode switchTraceOff(bool json, bool restart);
ExitCode followTrace(bool json, std::size_t lines);

struct DoctorOptions {
  unsigned seconds = 10; ///< for the provider's answer, and for a probe
  std::string archive;   ///< a ZIP file for support; empty: none
  std::string expected;  ///< as in showStatus
  bool probesEvents = false;
};
ExitCode examine(bool json, const DoctorOptions& options);

struct SetupOptions {
  std::string strategy;  ///< empty: adapter for a new service, else as it is
  std::string program;   ///< empty: quillmon.exe beside this program
  std::string mofFolder; ///< empty: this program's folder
  bool keepsStopped = false;
  bool eventLog = false; ///< device events go to the Application log, too
};
ExitCode install(bool json, const SetupOptions& options);
ExitCode uninstall(bool json, const SetupOptions& options);
ExitCode repair(bool json, const SetupOptions& options);

} // namespace ctl
