#pragma once

#include <iostream>
#include <string_view>

namespace till {

/// The program's voice: log lines and answers to commands on standard output, errors on the other,
/// each line flushed at once so that whoever reads a pipe sees it. One thread at a time.
class Log {
public:
  /// `quiet` silences what happens, neither answers nor errors.
  explicit Log(bool quiet = false) : quiet_(quiet) {}

  /// What happened.
  void event(std::string_view text) {
    if (!quiet_) {
      say(text);
    }
  }
  /// What was asked for.
  void say(std::string_view text) { std::cout << text << '\n' << std::flush; }
  void error(std::string_view text) {
    std::cerr << "quillmon-till: " << text << '\n' << std::flush;
  }

private:
  bool quiet_;
};

} // namespace till
