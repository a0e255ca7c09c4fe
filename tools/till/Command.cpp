#include "till/Command.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace till {
namespace {

constexpr std::string_view kBlanks = " \t\r";
/// Windows' editors begin a file with it, and .NET what it writes to a program's standard input.
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr unsigned kLongestWait = 3'600'000;

std::vector<std::string> split(std::string_view line) {
  std::vector<std::string> words;
  for (std::size_t at = line.find_first_not_of(kBlanks); at < line.size();
       at = line.find_first_not_of(kBlanks, at)) {
    std::size_t end = 0;
    if (line[at] == '"') {
      end = line.find('"', at + 1);
      if (end == std::string_view::npos) {
        throw CommandError("a double quote is not closed");
      }
      words.emplace_back(line.substr(at + 1, end - at - 1));
      ++end;
      if (end < line.size() && kBlanks.find(line[end]) == std::string_view::npos) {
        throw CommandError("a blank is missing after a double quote");
      }
    } else {
      end = std::min(line.find_first_of(kBlanks, at), line.size());
      words.emplace_back(line.substr(at, end - at));
    }
    at = end;
  }
  return words;
}

} // namespace

const std::vector<CommandHelp>& commands() {
  static const std::vector<CommandHelp> kCommands = {
      {"attach ID", "list the device and send addInstance", 1, 1},
      {"change ID [CODE]", "send modifyInstance with the code", 1, 2},
      {"detach ID", "list the device no longer and send delInstance", 1, 1},
      {"event ID TYPE [CODE]", "send an event of any type; the list stays as it is", 2, 3},
      {"set ID FIELD VALUE", "change a field (a new one is a string); no event is sent", 3, 3},
      {"list", "show the devices", 0, 0},
      {"status", "show ports, counts and the misbehaviour", 0, 0},
      {"misbehave MODE", "answer with a fault: see --help", 1, 2},
      {"misbehave-events MODE", "send events with a fault: see --help", 1, 2},
      {"disconnect", "proxy: close the connection and stay away", 0, 0},
      {"reconnect", "proxy: end the connection, if there is one, and connect at once", 0, 0},
      {"wait MS", "wait before the next command from the same place", 1, 1},
      {"help", "show this list", 0, 0},
      {"quit", "end the program", 0, 0},
  };
  return kCommands;
}

std::optional<Command> parseCommand(std::string_view line) {
  if (line.starts_with(kByteOrderMark)) {
    line.remove_prefix(kByteOrderMark.size());
  }
  std::vector<std::string> words = split(line);
  if (words.empty() || words.front().starts_with('#')) {
    return std::nullopt;
  }
  for (const CommandHelp& known : commands()) {
    if (known.usage.substr(0, known.usage.find(' ')) != words.front()) {
      continue;
    }
    const std::size_t count = words.size() - 1;
    if (count < known.fewest || count > known.most) {
      throw CommandError(fmt::format("usage: {}", known.usage));
    }
    Command command{words.front(), {}, {}};
    command.arguments.assign(std::make_move_iterator(words.begin() + 1),
                             std::make_move_iterator(words.end()));
    if (command.word == "wait") {
      parseMilliseconds(command.arguments.front());
    }
    return command;
  }
  throw CommandError(fmt::format("unknown command '{}' (help lists the commands)", words.front()));
}

std::vector<Command> parseScript(std::string_view text, const std::string& name) {
  std::vector<Command> script;
  std::size_t number = 0;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const std::string origin = fmt::format("{}:{}: ", name, ++number);
    try {
      if (std::optional<Command> command = parseCommand(line)) {
        command->origin = origin;
        script.push_back(std::move(*command));
      }
    } catch (const CommandError& problem) {
      throw CommandError(origin + problem.what());
    }
  }
  return script;
}

unsigned parseMilliseconds(std::string_view text) {
  unsigned number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(text.data(), end, number);
  if (problem != std::errc() || stop != end || number > kLongestWait) {
    throw CommandError(
        fmt::format("'{}' is not a number of milliseconds from 0 to {}", text, kLongestWait));
  }
  return number;
}

} // namespace till
