#pragma once

#include "quillmonctl/Failure.h"

#include <functional>

namespace CLI {
class App;
}

namespace ctl {

/// What the command line asked for. `command` runs once the whole line was understood.
struct Session {
  bool json = false;
  std::function<ExitCode()> command;
};

/// Each adds its subcommands, whose options live as long as the application.
void addStatusCommand(CLI::App& app, Session& session);
void addDeviceCommands(CLI::App& app, Session& session);
void addConfigCommand(CLI::App& app, Session& session);
void addTraceCommand(CLI::App& app, Session& session);
void addInstallCommands(CLI::App& app, Session& session);
void addDoctorCommand(CLI::App& app, Session& session);

} // namespace ctl
