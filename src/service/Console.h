#pragma once

#include <cstdio>
#include <string>

/// Command-line feedback: standard output, one line per message, flushed.
namespace console {

inline void print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

} // namespace console
