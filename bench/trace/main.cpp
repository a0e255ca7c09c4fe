// bench_trace: a line of the product's trace, and what it cannot do without. Reads commands
// "NAME TIMES", one a line, and answers each with the microseconds of one. The first "enabled"
// switches the trace on, for good.
//
//   disabled     a trace line while nobody has switched the trace on
//   look         the look for the switch alone
//   enabled      a trace line that is written
//   append       the same line appended to a file alone

#include "trace/UPOSLog.h"
#include "win/Handles.h"

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr wchar_t kSwitch[] = L"Global\\TRC_QUILLMON";

void trace() {
  UPOSLog::trace("<<XMLAdapter>>: a line of the usual length about device '%s'", "SCANNER1");
}

void look() {
  const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, kSwitch));
}

void append() {
  constexpr char kLine[] =
      "11/21/2026 12:00:00  <<XMLAdapter>>: a line of the usual length about device 'SCANNER1'\r\n";
  std::FILE* const file = std::fopen("append.log", "ab");
  std::fwrite(kLine, 1, sizeof kLine - 1, file);
  std::fclose(file);
}

template <class Action>
double each(std::size_t times, const Action& action) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < times; ++i) {
    action();
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() /
         static_cast<double>(times);
}

} // namespace

int main() {
  win::Handle switchedOn;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    std::size_t times = 0;
    words >> command >> times;
    if (command == "enabled" && !switchedOn) {
      switchedOn.reset(CreateEventW(nullptr, TRUE, TRUE, kSwitch));
    }
    double result = 0;
    if (command == "disabled" || command == "enabled") {
      result = each(times, trace);
    } else if (command == "look") {
      result = each(times, look);
    } else if (command == "append") {
      result = each(times, append);
    } else {
      std::cout << "unknown" << std::endl;
      continue;
    }
    std::cout << result << std::endl;
  }
}
