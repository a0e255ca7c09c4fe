// quillmon-till: reads its command line, plays the till until told to end, or checks a document.

#include "till/CheckCommands.h"
#include "till/Command.h"
#include "till/EventChannel.h"
#include "till/EventStream.h"
#include "till/Inventory.h"
#include "till/Log.h"
#include "till/Options.h"
#include "till/RequestServer.h"
#include "till/Till.h"
#include "till/Xml.h"

#include <asio.hpp>
#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace till {
namespace {

/// Executes the commands of one place, the script or standard input, in order: a wait holds back
/// those behind it, not those of the other place.
class CommandQueue : public std::enable_shared_from_this<CommandQueue> {
public:
  CommandQueue(asio::io_context& context, Till& till, std::function<void()> quit, Log& log)
      : timer_(context), till_(till), quit_(std::move(quit)), log_(log) {}

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
        till_.execute(command);
      } catch (const CommandError& problem) {
        log_.error(command.origin + problem.what());
      }
    }
  }

  asio::steady_timer timer_;
  Till& till_;
  std::function<void()> quit_;
  Log& log_;
  std::deque<Command> waiting_;
  bool busy_ = false;
};

/// Reads lines until standard input ends, each handed to the context's thread, which sets `ended`
/// at the end. Nothing can wake a thread that waits for standard input.
std::thread readStandardInput(asio::io_context& context, std::shared_ptr<CommandQueue> queue,
                              bool& ended, Log& log) {
  return std::thread([&context, queue = std::move(queue), &ended, &log] {
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
    asio::post(context, [queue, &ended] {
      ended = true;
      queue->add({"quit", {}, {}});
    });
  });
}

std::vector<Command> loadScript(const std::string& path, Till& till) {
  std::vector<Command> script;
  if (!path.empty()) {
    script = parseScript(readFile(path), path);
    for (const Command& command : script) {
      try {
        till.check(command);
      } catch (const CommandError& problem) {
        throw CommandError(command.origin + problem.what());
      }
    }
  }
  return script;
}

std::unique_ptr<RequestServer> openRequestPort(asio::io_context& context, const Options& options,
                                               Till& till, Log& log) {
  try {
    return std::make_unique<RequestServer>(context, options.requestPort, options.requestTimeout,
                                           till, log);
  } catch (const std::system_error& problem) {
    throw std::runtime_error(
        fmt::format("request port {}: {}", options.requestPort, problem.code().message()));
  }
}

void serve(const Options& options, Log& log) {
  Inventory inventory = readInventory(readFile(options.inventory), options.inventory);
  for (const std::string& warning : inventory.warnings) {
    log.error(warning);
  }

  asio::io_context context;
  std::unique_ptr<EventChannel> events;
  EventStream* stream = nullptr;
  if (options.isProxy) {
    auto owner = std::make_unique<EventStream>(context, options.eventPort, log);
    stream = owner.get();
    events = std::move(owner);
  } else {
    events = std::make_unique<EventDatagrams>(context, options.eventPort);
  }
  Till till(std::move(inventory), *events, log,
            {options.isProxy, options.wholeClassname, 0, options.eventPort});
  std::vector<Command> script = loadScript(options.script, till);
  const std::string counts = till.counts();
  if (options.check) {
    log.say(fmt::format("quillmon-till: {}: {}", options.inventory, counts));
    return;
  }
  if (options.misbehave != "none") {
    till.execute(*parseCommand("misbehave " + options.misbehave));
  }
  if (options.misbehaveEvents != "none") {
    till.execute(*parseCommand("misbehave-events " + options.misbehaveEvents));
  }

  asio::signal_set signals(context, SIGINT, SIGTERM);
  signals.async_wait([&](asio::error_code problem, int) {
    if (!problem) {
      context.stop();
    }
  });

  // What was sent before quit reaches the service, also when it goes out in pieces.
  const std::function<void()> quit = [&] {
    stream != nullptr ? stream->finish([&] { context.stop(); }) : context.stop();
  };
  const auto fromScript = std::make_shared<CommandQueue>(context, till, quit, log);
  const auto runScript = [&] {
    for (Command& command : std::exchange(script, {})) {
      fromScript->add(std::move(command));
    }
  };
  std::unique_ptr<RequestServer> server;
  if (stream != nullptr) {
    log.say(fmt::format("quillmon-till: ready: events to 127.0.0.1:{} (proxy), {}",
                        options.eventPort, counts));
    stream->start(
        [&] {
          till.connected();
          runScript();
        },
        [&](const std::string& request) { till.update(request); });
  } else {
    server = openRequestPort(context, options, till, log);
    till.setRequestPort(server->port());
    log.say(
        fmt::format("quillmon-till: ready: requests on 127.0.0.1:{}, events to 127.0.0.1:{}, {}",
                    server->port(), options.eventPort, counts));
    asio::post(context, runScript);
  }
  if (options.noStdin) {
    context.run();
    return;
  }
  bool ended = false;
  std::thread reader = readStandardInput(
      context, std::make_shared<CommandQueue>(context, till, quit, log), ended, log);
  try {
    context.run();
  } catch (const std::exception& problem) {
    log.error(problem.what());
    std::_Exit(kFailed);
  }
  // The thread at standard input may still wait there when all is over, holding on to what would
  // then go away: the process ends before that.
  if (!ended) {
    std::_Exit(kEnded);
  }
  reader.join();
}

int run(int argc, char** argv) {
  if (const std::optional<int> ended = runCheckCommand(argc, argv)) {
    return *ended;
  }
  Options options;
  if (const std::optional<int> ended = readOptions(argc, argv, options)) {
    return *ended;
  }
  Log log(options.quiet);
  try {
    const XmlLibrary library;
    serve(options, log);
    return kEnded;
  } catch (const std::exception& problem) {
    log.error(problem.what());
    return kFailed;
  }
}

} // namespace
} // namespace till

int main(int argc, char** argv) {
  try {
    return till::run(argc, argv);
  } catch (...) { // nothing could be said about it either
    return till::kFailed;
  }
}
