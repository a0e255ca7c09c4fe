#pragma once

#include "quillmonctl/Failure.h"

#include <cstddef>
#include <string>

/// The commands, with the options that they were given. Each prints its result, with `json` as
/// JSON, and throws Failure.
namespace ctl {

ExitCode showStatus(bool json, unsigned seconds);

ExitCode listDevices(bool json, const std::string& name, unsigned seconds);
ExitCode getDevice(bool json, const std::string& name);
ExitCode watchDevices(bool json, unsigned seconds, unsigned count);

ExitCode checkConfiguration(bool json);
ExitCode showConfiguration(bool json);
ExitCode setConfiguration(bool json, const std::string& name, const std::string& value);

ExitCode switchTraceOn(bool json, bool untilSeen);
ExitCode switchTraceOff(bool json, bool restart);
ExitCode followTrace(bool json, std::size_t lines);

ExitCode examine(bool json, unsigned seconds, const std::string& archive);

struct SetupOptions {
  std::string strategy = "adapter";
  std::string program;   ///< empty: quillmon.exe beside this program
  std::string mofFolder; ///< empty: this program's folder
  bool keepsStopped = false;
};
ExitCode install(bool json, const SetupOptions& options);
ExitCode uninstall(bool json, const SetupOptions& options);
ExitCode repair(bool json, const SetupOptions& options);

} // namespace ctl
