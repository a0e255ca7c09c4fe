#pragma once

#include <fmt/format.h>

#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace till {

/// One line of a script or typed at the program: its word and its arguments, their number checked.
struct Command {
  std::string word;
  std::vector<std::string> arguments;
  std::string origin; ///< "script.txt:3: " in front of what is said about it; empty when typed
};

/// A line that is no command, in words for the user.
class CommandError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

struct CommandHelp {
  std::string_view usage;
  std::string_view effect;
  std::size_t fewest;
  std::size_t most;
};
const std::vector<CommandHelp>& commands();

/// Words are parted by blanks; double quotes keep blanks inside a word ("SCALE 1", ""). Nothing for
/// a blank line and for one that begins with #. A byte order mark before it does not count. Throws
/// CommandError.
std::optional<Command> parseCommand(std::string_view line);

/// All commands of a script. Throws CommandError "NAME:LINE: text".
std::vector<Command> parseScript(std::string_view text, const std::string& name);

/// A number of milliseconds up to one hour. Throws CommandError.
unsigned parseMilliseconds(std::string_view text);

/// Words and what they do as lines of help, each indented by two blanks.
template <class Help>
std::string helpText(const std::vector<Help>& all) {
  std::string text;
  for (const Help& each : all) {
    fmt::format_to(std::back_inserter(text), "  {:<22} {}\n", each.usage, each.effect);
  }
  text.pop_back();
  return text;
}

} // namespace till
