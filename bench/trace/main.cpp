// bench_trace: a line of the product's trace, and what it cannot do without. Reads commands
// "NAME TIMES", one a line, and answers each with the microseconds of one. The first "enabled"
// switches the trace on, for good.
//
//   disabled     a trace line while nobody has switched the trace on
//   look         the look for the switch alone
//   enabled      a trace line that is written
//   steps        the system calls that a written line has by design, with a log of its own
//   thread       the same, and the thread that a log without a limit of size starts for each line

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

void takeTurnAndAppend(bool startsThread) {
  constexpr char kLine[] =
      "11/21/2026 12:00:00  <<XMLAdapter>>: a line of the usual length about device 'SCANNER1'\r\n";
  constexpr char kLog[] = "steps.log";
  static const win::Handle turn(CreateEventA(nullptr, FALSE, TRUE, "Write of the steps"));
  for (int i = 0; i < 2; ++i) { // the caller's test and the writer's
    const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, kSwitch));
    WaitForSingleObject(event.get(), 0);
  }
  WaitForSingleObject(turn.get(), INFINITE);
  WIN32_FILE_ATTRIBUTE_DATA status;
  GetFileAttributesExA(kLog, GetFileExInfoStandard, &status);
  if (startsThread) {
    const win::Handle done(CreateEventA(nullptr, FALSE, FALSE, "BackUp of the steps"));
    const auto run = [](void* event) -> DWORD {
      SetEvent(event);
      return 0;
    };
    const win::Handle thread(CreateThread(nullptr, 0, run, done.get(), 0, nullptr));
    WaitForSingleObject(done.get(), INFINITE);
    WaitForSingleObject(thread.get(), INFINITE);
  }
  std::FILE* const file = std::fopen(kLog, "ab+");
  std::fwrite(kLine, 1, sizeof kLine - 1, file);
  std::fclose(file);
  SetEvent(turn.get());
}

void steps() {
  takeTurnAndAppend(false);
}

void thread() {
  takeTurnAndAppend(true);
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
    } else if (command == "steps") {
      result = each(times, steps);
    } else if (command == "thread") {
      result = each(times, thread);
    } else {
      std::cout << "unknown" << std::endl;
      continue;
    }
    std::cout << result << std::endl;
  }
}
