#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// A service's binary path as the service control manager reads it: a program, quoted or not, and
/// arguments.
struct BinaryPath {
  std::string program; ///< with backslashes, without quotes
  std::string arguments;
  bool isQuoted = false;

  /// Without quotes the program ends behind its first ".exe", or at the first blank.
  static BinaryPath parse(std::string_view text);

  /// As it is written back: in quotes where there is a blank.
  std::string text() const;

  /// What Windows would try to start before the program because the path is not quoted:
  /// C:\Program.exe for C:\Program Files\Quillmon\quillmon.exe.
  std::vector<std::string> hijackCandidates() const;

  /// The proxy strategy is the option -o, whatever stands for the dash.
  bool isProxy() const { return arguments.size() >= 2 && arguments[1] == 'o'; }
};

} // namespace ctl
