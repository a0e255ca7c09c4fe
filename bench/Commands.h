#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace bench {

/// The microseconds that `times` calls of `action` take.
template <class Action>
double microseconds(std::size_t times, const Action& action) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < times; ++i) {
    action();
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

inline std::size_t number(std::istringstream& words) {
  std::size_t value = 0;
  words >> value;
  if (words.fail()) {
    throw std::runtime_error("a number is missing");
  }
  return value;
}

inline std::string word(std::istringstream& words) {
  std::string value;
  words >> value;
  return value;
}

/// Prints "ready", reads commands from standard input, one a line, and answers each with one line:
/// what `run(command, words)` returns, or "failed" with the reason. Returns at the input's end.
template <class Run>
void answerCommands(const Run& run) {
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    try {
      const std::string command = word(words);
      std::cout << run(command, words) << std::endl;
    } catch (const std::exception& error) {
      std::cout << "failed: " << error.what() << std::endl;
    }
  }
}

} // namespace bench
