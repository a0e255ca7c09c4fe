// quillmonctl: its command line, the one place that knows the library for that.

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "win/CodeSearch.h"
#include "win/Handles.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <shellapi.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace ctl;

constexpr const char* kFooter =
    "\n--json may stand anywhere; a failure is then an object with the member \"error\".\n"
    "\nExit codes: 0 done; 1 a step failed, the message names it; 2 wrong command line;\n"
    "3 the report is whole and something is wrong (status, doctor, config check,\n"
    "check-document);\n"
    "4 no such device or class; 5 access denied; 6 no answer, or fewer events than\n"
    "asked for, in time.\n"
    "\nExamples:\n"
    "  quillmonctl install --strategy adapter\n"
    "  quillmonctl status\n"
    "  quillmonctl devices Scanner\n"
    "  quillmonctl get Scanner/SCANNER1\n"
    "  quillmonctl watch --json\n"
    "  quillmonctl config set upos.requestSocket.Port 42115\n"
    "  quillmonctl doctor --archive support.zip\n"
    "  quillmonctl metrics --textfile C:\\metrics\\quillmon.prom\n";

/// Seconds: WMI counts milliseconds, in 31 bits.
constexpr unsigned kLongestWait = 2'147'483;

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

/// What the command line says. `command` runs once the whole line was understood.
struct Request {
  bool json = false;
  unsigned timeout = 10;
  unsigned listTimeout = 60;
  unsigned seconds = 0;
  unsigned count = 0;
  std::size_t lines = 10;
  bool untilSeen = false;
  bool restart = false;
  std::string device;
  std::string key;
  std::string value;
  std::string expected;
  std::string document;
  DoctorOptions doctor;
  MetricsOptions metrics;
  SetupOptions setup;
  std::function<ExitCode()> command;
};

void describe(CLI::App& app, Request& r) {
  const auto add = [&r](CLI::App& above, const char* name, const char* what, auto action) {
    CLI::App* const command = above.add_subcommand(name, what);
    command->callback([&r, action] { r.command = action; });
    return command;
  };
  const auto addGroup = [&app](const char* name, const char* what) {
    CLI::App* const group = app.add_subcommand(name, what);
    group->require_subcommand(1);
    return group;
  };
  const auto addSeconds = [](CLI::App& command, const char* name, unsigned& seconds,
                             const char* what) {
    command.add_option(name, seconds, what)
        ->check(CLI::Range(0U, kLongestWait).description(""))
        ->capture_default_str();
  };
  const auto addExpected = [](CLI::App& command, std::string& file) {
    command
        .add_option("--expected", file, "Tell missing and new devices by this file of \"expect\"")
        ->option_text("FILE");
  };

  app.set_version_flag("--version", "quillmonctl " QUILLMON_VERSION);
  app.add_flag("--json", r.json, "For scripts: JSON instead of text");
  app.fallthrough(); // and so do its commands
  app.require_subcommand(1);
  app.get_formatter()->column_width(13);
  app.footer(kFooter);

  CLI::App* command = add(app, "status", "What is installed, running, configured and reachable",
                          [&r] { return showStatus(r.json, r.timeout, r.expected); });
  addSeconds(*command, "--timeout", r.timeout, "Seconds to wait for the provider's answer");
  addExpected(*command, r.expected);

  command = add(app, "devices", "List the till's devices",
                [&r] { return listDevices(r.json, r.device, r.listTimeout); });
  command->add_option("CLASS", r.device, "Scanner or UPOS_Scanner; all devices without it");
  addSeconds(*command, "--timeout", r.listTimeout, "Seconds to wait for the answer");

  add(app, "get", "All properties of one device", [&r] { return getDevice(r.json, r.device); })
      ->add_option("PATH", r.device,
                   "SCANNER1, Scanner/SCANNER1, or a WMI object path: "
                   "UPOS_Scanner.DeviceID=\"SCANNER1\"")
      ->required();

  command = add(app, "watch", "Device events as they happen, one a line",
                [&r] { return watchDevices(r.json, r.seconds, r.count); });
  addSeconds(*command, "--seconds", r.seconds, "End after so long; 0: never");
  command
      ->add_option("--count", r.count,
                   "End after so many events; exit code 6 if fewer come in time")
      ->capture_default_str();

  command = add(app, "doctor", "Every check that support asks for, one verdict a line",
                [&r] { return examine(r.json, r.doctor); });
  addSeconds(*command, "--timeout", r.doctor.seconds, "Seconds to wait for the provider's answer");
  command->add_flag("--probe-events", r.doctor.probesEvents,
                    "Send one event to the service and wait for it; every subscriber gets it");
  command->add_option("--archive", r.doctor.archive,
                      "Pack status, configuration and logs into this ZIP file for support");
  addExpected(*command, r.doctor.expected);

  command = add(app, "expect", "Remember the devices that are there now, for --expected",
                [&r] { return expectDevices(r.json, r.timeout, r.value); });
  command->add_option("--from-now", r.value, "The file to write")->option_text("FILE")->required();
  addSeconds(*command, "--timeout", r.timeout, "Seconds to wait for the provider's answer");

  command = add(app, "metrics", "The devices in the text format of Prometheus",
                [&r] { return exportMetrics(r.json, r.metrics); });
  CLI::Option* const textfile =
      command->add_option("--textfile", r.metrics.textfile, "Replace this file, in one step")
          ->option_text("FILE");
  command
      ->add_option("--watch", r.metrics.watchEvery,
                   "Replace it every so many seconds and follow events; Ctrl-C ends")
      ->option_text("SECONDS")
      ->check(CLI::Range(1U, 86'400U).description(""))
      ->needs(textfile);
  addSeconds(*command, "--timeout", r.metrics.timeout, "Seconds to wait for each of the answers");
  addExpected(*command, r.metrics.expected);

  add(app, "check-document", "What the service does with an answer or an event",
      [] { return checkDocument(); })
      ->add_option("FILE", r.document, "The document; - for standard input")
      ->required();

  CLI::App& config = *addGroup("config", "The service's configuration file");
  add(config, "check", "Look for nonsense; exit code 3 if there is some",
      [&r] { return checkConfiguration(r.json); });
  add(config, "show", "Every key, its value and where that came from",
      [&r] { return showConfiguration(r.json); });
  command = add(config, "set", "Change one key; comments are kept",
                [&r] { return setConfiguration(r.json, r.key, r.value); });
  command->add_option("KEY", r.key, "The key's name")->required();
  command->add_option("VALUE", r.value, "Its new value")->required();

  CLI::App& trace = *addGroup("trace", "The service's trace log");
  add(trace, "on", "Enable the trace, and hold it enabled",
      [&r] { return switchTraceOn(r.json, r.untilSeen); })
      ->add_flag("--until-seen", r.untilSeen,
                 "End as soon as the service traces; it then goes on by itself");
  add(trace, "off", "Enable it no longer; exit code 3 if the running service goes on", [&r] {
    return switchTraceOff(r.json, r.restart);
  })->add_flag("--restart", r.restart, "Restart a service that goes on");
  add(trace, "follow", "Print the log as it grows, through its rotation",
      [&r] { return followTrace(r.json, r.lines); })
      ->add_option("--lines", r.lines, "Begin with so many of its last lines")
      ->capture_default_str();

  const auto addSetup = [&](const char* name, const char* what, auto job) {
    CLI::App* const setup = add(app, name, what, [&r, job] { return job(r.json, r.setup); });
    setup->add_option("--mof-folder", r.setup.mofFolder,
                      "Where quillmon.mof and quillmon-uninstall.mof are, if not beside "
                      "quillmonctl.exe");
    return setup;
  };
  const auto addChoices = [&](CLI::App* setup, const char* unlessGiven) {
    setup->add_option("--strategy", r.setup.strategy, "adapter or proxy")
        ->check(CLI::IsMember({"adapter", "proxy"}).description(""))
        ->default_str(unlessGiven);
    setup->add_flag("--event-log", r.setup.eventLog,
                    "Have WMI write device events into the Application log, too");
  };
  command = addSetup("install", "Install and start the service, or change nothing", install);
  addChoices(command, "adapter");
  command->add_option("--program", r.setup.program,
                      "The service's program, if not quillmon.exe beside quillmonctl.exe");
  addSetup("uninstall", "Remove the service and its WMI classes", uninstall);
  command = addSetup("repair", "Renew the WMI classes and restart the service", repair);
  addChoices(command, "as it is");
  command->add_flag("--keep-stopped", r.setup.keepsStopped, "Do not start a stopped service");
}

void parse(CLI::App& app, std::vector<std::string> words) {
  const std::vector<CLI::App*> commands = app.get_subcommands({});
  if (!words.empty() && !words[0].starts_with('-') &&
      std::none_of(commands.begin(), commands.end(),
                   [&](const CLI::App* command) { return command->get_name() == words[0]; })) {
    throw CLI::ExtrasError({words[0]}); // else it would say that a command is missing
  }
  std::reverse(words.begin(), words.end()); // as this library wants them
  app.parse(std::move(words));
}

int run() {
  Request request;
  CLI::App app("Installs, looks after and asks the Quillmon service, which publishes a till's\n"
               "devices to WMI.",
               "quillmonctl");
  describe(app, request);
  try {
    parse(app, arguments());
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) {
      return app.exit(problem); // help or version
    }
    console::printError(
        wrap(fmt::format("quillmonctl: {} (--help tells more)", problem.what()), kWidth, 2));
    return static_cast<int>(ExitCode::WrongCommandLine);
  }
  try {
    return static_cast<int>(request.command());
  } catch (const Failure& failure) {
    if (request.json) {
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
