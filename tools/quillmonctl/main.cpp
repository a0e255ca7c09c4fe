#include "device_server/Program.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/Invocation.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "win/CodeSearch.h"
#include "win/Handles.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <shellapi.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace ctl;

constexpr const char* kFooter =
    "\n--json may stand anywhere; a failure is then an object with the member \"error\".\n"
    "\nExit codes: 0 done; 1 a step failed, the message names it; 2 wrong command line;\n"
    "3 the report is whole and something is wrong (status, doctor, config check);\n"
    "4 no such device or class; 5 access denied; 6 no answer, or fewer events than\n"
    "asked for, in time.\n"
    "\nExamples:\n"
    "  quillmonctl install --strategy adapter\n"
    "  quillmonctl status\n"
    "  quillmonctl devices Scanner\n"
    "  quillmonctl get Scanner/SCANNER1\n"
    "  quillmonctl watch --json\n"
    "  quillmonctl config set upos.requestSocket.Port 42115\n"
    "  quillmonctl doctor --archive support.zip\n";

/// As Windows gave them, not in the code page that main's own arguments come in.
std::vector<std::string> arguments() {
  int count = 0;
  wchar_t** const all = CommandLineToArgvW(GetCommandLineW(), &count);
  const win::LocalMemory owner(all);
  std::vector<std::string> result;
  for (int i = 1; i < count; ++i) {
    result.push_back(utf8(all[i]));
  }
  return result;
}

int run() {
  Invocation invocation;
  CLI::App app("Installs, looks after and asks the Quillmon service, which publishes a till's\n"
               "devices to WMI.",
               "quillmonctl");
  app.set_version_flag("--version", "quillmonctl " QUILLMON_VERSION);
  app.add_flag("--json", invocation.json, "For scripts: JSON instead of text");
  app.fallthrough();
  app.require_subcommand(1);
  app.get_formatter()->column_width(13);
  app.footer(kFooter);
  addStatusCommand(app, invocation);
  addDeviceCommands(app, invocation);
  addDoctorCommand(app, invocation);
  addConfigCommand(app, invocation);
  addTraceCommand(app, invocation);
  addInstallCommands(app, invocation);
  app.add_subcommand("simulate", "A till without hardware; simulate --help tells more");
  for (CLI::App* const command : app.get_subcommands({})) {
    command->fallthrough();
  }
  try {
    std::vector<std::string> words = arguments();
    if (!words.empty() && words[0] == "simulate") { // all that follows is the simulator's
      words.erase(words.begin());
      return till::runProgram("quillmonctl simulate", std::move(words));
    }
    const std::vector<CLI::App*> commands = app.get_subcommands({});
    if (!words.empty() && !words[0].starts_with('-') &&
        std::none_of(commands.begin(), commands.end(),
                     [&](const CLI::App* command) { return command->get_name() == words[0]; })) {
      throw CLI::ExtrasError({words[0]}); // else it would say that a command is missing
    }
    std::reverse(words.begin(), words.end()); // as this library wants them
    app.parse(words);
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) {
      return app.exit(problem); // help or version
    }
    console::printError(
        wrap(fmt::format("quillmonctl: {} (--help tells more)", problem.what()), kWidth, 2));
    return static_cast<int>(ExitCode::WrongCommandLine);
  }
  try {
    return static_cast<int>(invocation.command());
  } catch (const Failure& failure) {
    if (invocation.json) {
      console::print(toJson(failure));
    } else {
      console::printError(toText(failure));
    }
    return static_cast<int>(failure.exitCode);
  }
}

} // namespace

int main() {
  win::loadCodeFromSystemOnly(); // it is often run as an administrator
  try {
    return run();
  } catch (const std::exception& problem) {
    console::printError(fmt::format("quillmonctl: {}\n", problem.what()));
    return static_cast<int>(ExitCode::Failed);
  }
}
