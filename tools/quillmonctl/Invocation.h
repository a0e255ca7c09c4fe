#pragma once

#include "quillmonctl/Failure.h"

#include <functional>

namespace CLI {
class App;
}

namespace ctl {

/// What the command line asked for. `command` runs once the whole line was understood.
struct Invocation {
  bool json = false;
  std::function<ExitCode()> command;
};

/// Each adds its subcommands, whose options live as long as the application.
void addStatusCommand(CLI::App& app, Invocation& invocation);
void addDeviceCommands(CLI::App& app, Invocation& invocation);
void addConfigCommand(CLI::App& app, Invocation& invocation);
void addTraceCommand(CLI::App& app, Invocation& invocation);
void addInstallCommands(CLI::App& app, Invocation& invocation);
void addDoctorCommand(CLI::App& app, Invocation& invocation);

} // namespace ctl
