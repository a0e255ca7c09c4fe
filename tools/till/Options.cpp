#include "till/Options.h"

#include "till/Command.h"
#include "till/Delivery.h"
#include "till/Log.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <stdexcept>
#include <vector>

namespace till {
namespace {

std::string footer() {
  return fmt::format(R"(
Commands, one a line, typed at the program or in a script (# begins a comment, double
quotes keep blanks together):
{}

MODE of --misbehave and of the command misbehave:
{}

MODE of --misbehave-events and of the command misbehave-events:
{}

The same in the proxy role:
{}

The till begins to answer when the line "quillmon-till: ready: ..." has appeared. It ends
at the command quit, at Ctrl-C or SIGTERM and, unless --no-stdin is given, when its standard
input ends.

In the proxy role (--strategy proxy, for a service started with -o or -O) the till connects
to the event port and, when the service refuses or ends the connection, connects again after a
pause that grows from 0.1 to 5 seconds. Each time it says "connected to 127.0.0.1:PORT" and
sends all attached devices; a script begins at the first time. It opens no request port: the
service's requests for an update come on the connection. What is attached or detached without
a connection is not told to the service, except that the next connection brings the attached:
in a script, wait a little after reconnect.

Exit codes: 0 ended as asked, 1 something failed (inventory or script wrong or missing, port
in use), 2 wrong command line.

For the author of a device server, each with its own --help:
  quillmon-till check-document FILE       what the service does with an answer or an event
  quillmon-till check-server HOST:PORT    plays the service and judges a device server

Examples:
  quillmon-till samples/till.xml
  quillmon-till samples/till.xml --no-stdin --script samples/day.script
  quillmon-till samples/till.xml --misbehave "slow 5000"
  quillmon-till samples/till.xml --strategy proxy
)",
                     helpText(commands()), helpText(answerMisbehaviours()),
                     helpText(eventMisbehaviours()), helpText(streamMisbehaviours()));
}

} // namespace

std::optional<int> readOptions(int argc, const char* const* argv, Options& options) {
  std::string strategy = "adapter";
  std::string classname = "short";
  auto timeout = static_cast<unsigned>(options.requestTimeout.count());
  const auto between = [](unsigned least, unsigned most) {
    return CLI::Range(least, most).description("");
  };
  const auto oneOf = [](std::initializer_list<const char*> words) {
    return CLI::IsMember(std::vector<std::string>(words.begin(), words.end())).description("");
  };

  CLI::App app(
      "A till without hardware: plays the device server that the Quillmon service asks for its\n"
      "devices. It answers requests from an inventory file and sends device events; in the proxy\n"
      "role it sends the devices as events, too.",
      "quillmon-till");
  app.option_defaults()->always_capture_default();
  const auto add = [&app](const char* name, auto& value, const char* type, const char* what) {
    return app.add_option(name, value, what)->type_name(type);
  };
  add("INVENTORY", options.inventory, "FILE", "The till's devices, an XML file")->required();
  add("--strategy", strategy, "ROLE", "The role to play, adapter or proxy")
      ->check(oneOf({"adapter", "proxy"}));
  add("--request-port", options.requestPort, "PORT",
      "Port to answer requests on; 0: any free one, see the ready line. Not opened in the proxy "
      "role")
      ->check(between(0, 65535));
  add("--event-port", options.eventPort, "PORT",
      "Port to send events to; in the proxy role, to connect to")
      ->check(between(1, 65535));
  add("--script", options.script, "FILE", "Commands to execute, a text file");
  app.add_flag("--no-stdin", options.noStdin,
               "Take no commands from standard input: for a till in the background");
  add("--misbehave", options.misbehave, "MODE", "Answer with a fault");
  add("--misbehave-events", options.misbehaveEvents, "MODE", "Send events with a fault");
  add("--event-classname", classname, "FORM",
      "What an event names as its classname: short (Scanner) or whole (UPOS_Scanner); under the "
      "whole one a service in the proxy strategy lists the device by its class")
      ->check(oneOf({"short", "whole"}));
  add("--request-timeout", timeout, "MS",
      "How long a client may take to send its request or to take the answer")
      ->check(between(1, 3600000));
  app.add_flag("--check", options.check, "Only check the inventory and the script");
  app.add_flag("--quiet", options.quiet, "No line for each request and event");
  app.set_version_flag("--version", "quillmon-till " QUILLMON_VERSION);
  app.footer(footer());

  try {
    app.parse(argc, argv);
    options.isProxy = strategy == "proxy";
    options.wholeClassname = classname == "whole";
    options.requestTimeout = std::chrono::milliseconds(timeout);
    parseMisbehaviour(options.misbehave, answerMisbehaviours());
    parseMisbehaviour(options.misbehaveEvents,
                      options.isProxy ? streamMisbehaviours() : eventMisbehaviours());
    if (options.isProxy && options.misbehave != "none") {
      throw std::invalid_argument(
          "nothing is answered in the proxy role: --misbehave-events is its option");
    }
    return std::nullopt;
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) {
      return app.exit(problem); // help or version
    }
    Log().error(problem.what() + std::string(" (--help tells more)"));
  } catch (const std::invalid_argument& problem) {
    Log().error(problem.what());
  }
  return kWrongCommandLine;
}

} // namespace till
