#pragma once

#include "win/Configuration.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace till {

struct Options {
  std::string inventory;
  bool isProxy = false;
  bool wholeClassname = false;
  std::uint16_t requestPort = configuration::kDefaultRequestPort;
  std::uint16_t eventPort = configuration::kDefaultEventPort;
  std::string script;
  std::string misbehave = "none";
  std::string misbehaveEvents = "none";
  std::chrono::milliseconds requestTimeout{30'000};
  bool noStdin = false;
  bool quiet = false;
  bool check = false;
};

inline constexpr int kEnded = 0;
inline constexpr int kFailed = 1;
inline constexpr int kWrongCommandLine = 2;

/// Reads the command line. Returns the exit code when the program is to end now: help and version
/// have been shown, or a mistake has been named.
std::optional<int> readOptions(int argc, const char* const* argv, Options& options);

} // namespace till
