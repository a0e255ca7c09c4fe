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

/// The line for the console: control characters made visible, the component in colour if wanted.
std::string shown(std::string_view line, bool colour);

/// Colour is for a console only, and not where the user has set NO_COLOR to anything.
bool wantsColour(bool isConsole, const char* noColor);

} // namespace ctl
