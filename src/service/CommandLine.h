#pragma once

#include <string>

namespace service {

/// Performs the program's one option: installs or uninstalls the service, prints the version, runs
/// in the console, or hands the process to the service control manager. The second character of the
/// option decides. Returns the exit code, or ends the process. Threads: the first, once.
int runCommandLine(int argc, char* argv[]);

/// The service's binary path: argv[0] if it contains a backslash, else argv[0] below the current
/// directory; with forward slashes throughout.
std::string modulePath(const std::string& argv0);

/// The console modes: runs `Process` on the calling thread. Returns only if another instance is
/// running (0) or `Process` failed (1).
int RunInteractive();

} // namespace service
