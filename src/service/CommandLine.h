#pragma once

#include <string>

/// What the program does with its one option: installs or removes the service, prints its version,
/// runs in the console, or hands the process to the service control manager. The second character
/// of the option decides; the first one is never looked at. Returns the process's exit code, or
/// ends the process. Called once, on the process's first thread.
int runCommandLine(int argc, char* argv[]);

/// The path that the service is installed with: argv[0] as it stands when it holds a backslash,
/// else below the current directory; with forward slashes throughout.
std::string modulePath(const std::string& argv0);

/// The console modes: `Process` on the calling thread. Returns only when another instance runs (0)
/// or when `Process` failed (1).
int RunInteractive();
