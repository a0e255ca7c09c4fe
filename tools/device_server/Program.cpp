#include "device_server/Program.h"

#include "device_server/Command.h"
#include "device_server/Delivery.h"
#include "device_server/EventChannel.h"
#include "device_server/EventStream.h"
#include "device_server/Inventory.h"
#include "device_server/Log.h"
#include "device_server/RequestServer.h"
#include "device_server/Simulator.h"
#include "device_server/Xml.h"

#include <CLI/CLI.hpp>
#include <asio.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace till {
namespace {

constexpr int kEnded = 0;
constexpr int kFailed = 1;
constexpr int kWrongCommandLine = 2;

struct Options {
  std::string inventory;
  std::string strategy = "adapter";
  std::string eventClassname = "short";
  unsigned requestPort = 42115;
  unsigned eventPort = 42114;
  std::string script;
  std::string misbehave = "none";
  std::string misbehaveEvents = "none";
  unsigned requestTimeout = 30000;
  bool noStdin = false;
  bool quiet = false;
  bool timestamps = false;
  bool check = false;
};

std::string modes(const std::vector<MisbehaviourHelp>& known) {
  std::string text;
  for (const MisbehaviourHelp& each : known) {
    fmt::format_to(std::back_inserter(text), "  {:<22} {}\n", each.usage, each.effect);
  }
  text.pop_back();
  return text;
}

std::string footer() {
  return fmt::format(
      "\nCommands, one a line, typed at the program or in a script (# begins a comment, double\n"
      "quotes keep blanks together):\n{}\n"
      "\nMODE of --misbehave and of the command misbehave:\n{}\n"
      "\nMODE of --misbehave-events and of the command misbehave-events:\n{}\n"
      "\nThe same in the proxy role:\n{}\n"
      "\nThe till begins to answer when the line \"quillmon-till: ready: ...\" has appeared. It "
      "ends\n"
      "at the command quit, at Ctrl-C or SIGTERM and, unless --no-stdin is given, when its "
      "standard\n"
      "input ends.\n"
      "\nIn the proxy role (--strategy proxy, for a service started with -o or -O) the till "
      "connects\n"
      "to the event port and, when the service refuses or ends the connection, connects again "
      "after a\n"
      "pause that grows from 0.1 to 5 seconds. Each time it says \"connected to 127.0.0.1:PORT\" "
      "and\n"
      "sends all attached devices; a script begins at the first time. It opens no request port: "
      "the\n"
      "service's requests for an update come on the connection. What is attached or detached "
      "without\n"
      "a connection is not told to the service, except that the next connection brings the "
      "attached:\n"
      "in a script, wait a little after reconnect.\n"
      "\nExit codes: 0 ended as asked, 1 something failed (inventory or script wrong or missing, "
      "port\n"
      "in use), 2 wrong command line.\n"
      "\nExamples:\n"
      "  quillmon-till samples/till.xml\n"
      "  quillmon-till samples/till.xml --no-stdin --script samples/day.script\n"
      "  quillmon-till samples/till.xml --misbehave \"slow 5000\"\n"
      "  quillmon-till samples/till.xml --strategy proxy\n",
      commandHelp(), modes(answerMisbehaviours()), modes(eventMisbehaviours()),
      modes(streamMisbehaviours()));
}

void describe(CLI::App& app, const std::string& name, Options& options) {
  app.name(name);
  app.description(
      "A till without hardware: plays the device server that the Quillmon service asks for its\n"
      "devices. It answers requests from an inventory file and sends device events; in the proxy\n"
      "role it sends the devices as events, too.");
  const auto between = [](unsigned least, unsigned most) {
    return CLI::Range(least, most).description("");
  };
  app.add_option("INVENTORY", options.inventory, "The till's devices, an XML file")
      ->required()
      ->type_name("FILE");
  app.add_option("--strategy", options.strategy, "The role to play, adapter or proxy")
      ->check(CLI::IsMember({"adapter", "proxy"}).description(""))
      ->type_name("ROLE")
      ->capture_default_str();
  app.add_option("--request-port", options.requestPort,
                 "Port to answer requests on; 0: any free one, see the ready line. Not opened in "
                 "the proxy role")
      ->check(between(0, 65535))
      ->type_name("PORT")
      ->capture_default_str();
  app.add_option("--event-port", options.eventPort,
                 "Port to send events to; in the proxy role, to connect to")
      ->check(between(1, 65535))
      ->type_name("PORT")
      ->capture_default_str();
  app.add_option("--script", options.script, "Commands to execute, a text file")->type_name("FILE");
  app.add_flag("--no-stdin", options.noStdin,
               "Take no commands from standard input: for a till in the background");
  app.add_option("--misbehave", options.misbehave, "Answer with a fault")
      ->type_name("MODE")
      ->capture_default_str();
  app.add_option("--misbehave-events", options.misbehaveEvents, "Send events with a fault")
      ->type_name("MODE")
      ->capture_default_str();
  app.add_option(
         "--event-classname", options.eventClassname,
         "What an event names as its classname: short (Scanner) or whole (UPOS_Scanner); "
         "under the whole one a service in the proxy strategy lists the device by its class")
      ->check(CLI::IsMember({"short", "whole"}).description(""))
      ->type_name("FORM")
      ->capture_default_str();
  app.add_option("--request-timeout", options.requestTimeout,
                 "How long a client may take to send its request or to take the answer")
      ->check(between(1, 3600000))
      ->type_name("MS")
      ->capture_default_str();
  app.add_flag("--check", options.check, "Only check the inventory and the script");
  app.add_flag("--quiet", options.quiet, "No line for each request and event");
  app.add_flag("--timestamps", options.timestamps, "Begin these lines with the time");
  app.set_version_flag("--version", name + " " QUILLMON_VERSION);
  app.footer(footer());
}

/// Executes the commands of one place, the script or standard input, in order: a wait holds back
/// those behind it, not those of the other place.
class CommandQueue : public std::enable_shared_from_this<CommandQueue> {
public:
  CommandQueue(asio::io_context& context, Simulator& simulator, std::function<void()> quit,
               Log& log)
      : timer_(context), simulator_(simulator), quit_(std::move(quit)), log_(log) {}

  void add(Command command) {
    waiting_.push_back(std::move(command));
    if (!busy_) {
      run();
    }
  }

private:
  void run() {
    while (!waiting_.empty()) {
      const Command command = std::move(waiting_.front());
      waiting_.pop_front();
      if (command.word == "quit") {
        busy_ = true;
        quit_();
        return;
      }
      if (command.word == "wait") {
        busy_ = true;
        timer_.expires_after(std::chrono::milliseconds(parseMilliseconds(command.arguments[0])));
        timer_.async_wait([self = shared_from_this()](asio::error_code problem) {
          self->busy_ = false;
          if (!problem) {
            self->run();
          }
        });
        return;
      }
      try {
        simulator_.execute(command);
      } catch (const CommandError& problem) {
        log_.error(command.origin + problem.what());
      }
    }
  }

  asio::steady_timer timer_;
  Simulator& simulator_;
  std::function<void()> quit_;
  Log& log_;
  std::deque<Command> waiting_;
  bool busy_ = false;
};

/// Reads lines until standard input ends, each handed to the context's thread. Nothing can wake a
/// thread that waits for standard input, so it is never joined.
void readStandardInput(asio::io_context& context, std::shared_ptr<CommandQueue> queue, Log& log) {
  std::thread([&context, queue = std::move(queue), &log] {
    for (std::string line; std::getline(std::cin, line);) {
      asio::post(context, [queue, line, &log] {
        try {
          if (std::optional<Command> command = parseCommand(line)) {
            queue->add(std::move(*command));
          }
        } catch (const CommandError& problem) {
          log.error(problem.what());
        }
      });
    }
    asio::post(context, [queue] { queue->add({"quit", {}, {}}); });
  }).detach();
}

std::vector<Command> loadScript(const std::string& path, Simulator& simulator) {
  std::vector<Command> script;
  if (!path.empty()) {
    script = parseScript(readFile(path), path);
    for (const Command& command : script) {
      try {
        simulator.check(command);
      } catch (const CommandError& problem) {
        throw CommandError(command.origin + problem.what());
      }
    }
  }
  return script;
}

std::unique_ptr<RequestServer> openRequestPort(asio::io_context& context, const Options& options,
                                               Simulator& simulator, Log& log) {
  try {
    return std::make_unique<RequestServer>(context, static_cast<std::uint16_t>(options.requestPort),
                                           std::chrono::milliseconds(options.requestTimeout),
                                           simulator, log);
  } catch (const std::system_error& problem) {
    throw std::runtime_error(
        fmt::format("request port {}: {}", options.requestPort, problem.code().message()));
  }
}

void serve(const Options& options, Log& log) {
  Inventory inventory = loadInventory(options.inventory);
  for (const std::string& warning : inventory.warnings) {
    log.error(warning);
  }

  const bool proxy = options.strategy == "proxy";
  asio::io_context context;
  const auto eventPort = static_cast<std::uint16_t>(options.eventPort);
  std::unique_ptr<DatagramEventChannel> datagrams;
  std::unique_ptr<EventStream> stream;
  if (proxy) {
    stream = std::make_unique<EventStream>(context, eventPort, log);
  } else {
    datagrams = std::make_unique<DatagramEventChannel>(context, eventPort);
  }
  EventChannel& events = proxy ? static_cast<EventChannel&>(*stream) : *datagrams;
  Simulator simulator(
      std::move(inventory.till), events, log,
      {proxy ? Strategy::Proxy : Strategy::Adapter, options.eventClassname == "whole"});
  std::vector<Command> script = loadScript(options.script, simulator);
  const std::string counts =
      fmt::format("{} devices ({} attached)", simulator.till().devices().size(),
                  simulator.till().attachedCount());
  if (options.check) {
    log.say(fmt::format("quillmon-till: {}: {}", options.inventory, counts));
    return;
  }
  if (options.misbehave != "none") {
    simulator.execute(*parseCommand("misbehave " + options.misbehave));
  }
  if (options.misbehaveEvents != "none") {
    simulator.execute(*parseCommand("misbehave-events " + options.misbehaveEvents));
  }

  std::unique_ptr<RequestServer> server;
  if (!proxy) {
    server = openRequestPort(context, options, simulator, log);
  }
  simulator.setPorts(proxy ? std::uint16_t{0} : server->port(), eventPort);

  asio::signal_set signals(context, SIGINT, SIGTERM);
  signals.async_wait([&](asio::error_code problem, int) {
    if (!problem) {
      context.stop();
    }
  });

  // What was sent before quit reaches the service, also when it goes out in pieces.
  const std::function<void()> quit = [&] {
    proxy ? stream->finish([&] { context.stop(); }) : context.stop();
  };
  const auto fromScript = std::make_shared<CommandQueue>(context, simulator, quit, log);
  const auto runScript = [&] {
    for (Command& command : std::exchange(script, {})) {
      fromScript->add(std::move(command));
    }
  };
  if (proxy) {
    log.say(
        fmt::format("quillmon-till: ready: events to 127.0.0.1:{} (proxy), {}", eventPort, counts));
    stream->start(
        [&] {
          simulator.connected();
          runScript();
        },
        [&](const std::string& request) { simulator.update(request); });
  } else {
    log.say(
        fmt::format("quillmon-till: ready: requests on 127.0.0.1:{}, events to 127.0.0.1:{}, {}",
                    server->port(), eventPort, counts));
    asio::post(context, runScript);
  }
  if (options.noStdin) {
    context.run();
    return;
  }
  // The thread at standard input may still wait there when all is over, holding on to what would
  // then go away: the process ends before that.
  readStandardInput(context, std::make_shared<CommandQueue>(context, simulator, quit, log), log);
  try {
    context.run();
  } catch (const std::exception& problem) {
    log.error(problem.what());
    std::_Exit(kFailed);
  }
  std::_Exit(kEnded);
}

} // namespace

int runProgram(const std::string& name, std::vector<std::string> arguments) {
  Options options;
  CLI::App app;
  describe(app, name, options);
  try {
    std::reverse(arguments.begin(), arguments.end()); // as this library wants them
    app.parse(std::move(arguments));
    const bool proxy = options.strategy == "proxy";
    parseMisbehaviour(options.misbehave, answerMisbehaviours());
    parseMisbehaviour(options.misbehaveEvents,
                      proxy ? streamMisbehaviours() : eventMisbehaviours());
    if (proxy && options.misbehave != "none") {
      throw std::invalid_argument(
          "nothing is answered in the proxy role: --misbehave-events is its option");
    }
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) {
      return app.exit(problem); // help or version
    }
    Log(std::cout, std::cerr, {}).error(problem.what() + std::string(" (--help tells more)"));
    return kWrongCommandLine;
  } catch (const std::invalid_argument& problem) {
    Log(std::cout, std::cerr, {}).error(problem.what());
    return kWrongCommandLine;
  }

  Log log(std::cout, std::cerr, {options.quiet, options.timestamps});
  try {
    const XmlLibrary library;
    serve(options, log);
    return kEnded;
  } catch (const std::exception& problem) {
    log.error(problem.what());
    return kFailed;
  }
}

} // namespace till
