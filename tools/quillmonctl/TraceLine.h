#pragma once

#include <string>
#include <string_view>

namespace ctl {

/// A line of the trace log, cut into what it is made of; the pieces in order are the line.
struct TraceLine {
  std::string_view stamp;     ///< "11/21/2026 17:29:05", empty where the line has none
  std::string_view lead;      ///< what stands between
  std::string_view component; ///< "<<XMLAdapter>>", "[Process]"; empty where none is named
  std::string_view message;

  static TraceLine parse(std::string_view line);
};

/// Who wrote a line of the log, as far as that can be told: a message may hold text of a peer, with
/// line ends and time stamps in it.
enum class Origin {
  Service,      ///< it begins with a time stamp, and the message above it holds no text of others
  Unclear,      ///< it begins with a time stamp, but could be part of the text above it
  Continuation, ///< it is part of the message above it
};

/// Tells the origin of each line of a log, given in order. Imitated lines begin with one that is
/// Unclear.
class OriginReader {
public:
  /// `line` without its LF, but with the CR before that, if any.
  Origin next(std::string_view line);

private:
  bool holdsText_ = true; ///< the message above; unknown where the reading begins
  bool complete_ = true;  ///< the line above ended in CR LF, as each message does
};

/// The line for the console: marked with its origin, control characters made visible, the component
/// in colour if wanted.
std::string toConsoleText(std::string_view line, Origin origin, bool colour);

/// Colour is for a console only, and not where the user has set NO_COLOR to anything.
bool usesColour(bool isConsole, const char* noColor);

} // namespace ctl
