#pragma once

#include <ostream>
#include <string_view>

namespace till {

/// The program's voice: log lines and answers to commands on one stream, errors on another, each
/// line flushed at once so that whoever reads a pipe sees it. One thread at a time.
class Log {
public:
  struct Options {
    bool quiet = false;      ///< no log lines; answers and errors stay
    bool timestamps = false; ///< local time before each log line
  };

  Log(std::ostream& out, std::ostream& errors, Options options)
      : out_(out), errors_(errors), options_(options) {}

  /// What happened: silenced by `quiet`.
  void event(std::string_view text);
  /// What was asked for: never silenced.
  void say(std::string_view text);
  void error(std::string_view text);

private:
  std::ostream& out_;
  std::ostream& errors_;
  Options options_;
};

} // namespace till
