// bench_trace: a line of the product's trace, and its minimal cost. Reads commands
// "NAME TIMES", one a line, and answers each with the microseconds of one. The first "enabled"
// switches the trace on until the program ends.
//
//   disabled     a trace line while nobody has switched the trace on
//   look         the look-up of the switch alone
//   enabled      a trace line that is written
//   steps        the system calls that a written line has by design, with a log of its own
//   thread       the same, and the thread that a log without a limit of size starts for each line

#include "Commands.h"
#include "trace/UPOSLog.h"
#include "win/Handles.h"

#include <cstdio>
#include <map>
#include <string>

using trace::UPOSLog;

namespace bench {
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

void run() {
  const std::map<std::string, void (*)()> actions = {{"disabled", trace},
                                                     {"enabled", trace},
                                                     {"look", look},
                                                     {"steps", steps},
                                                     {"thread", thread}};
  win::Handle switchedOn;
  answerCommands([&](const std::string& command, std::istringstream& words) {
    const std::size_t times = number(words);
    if (command == "enabled" && !switchedOn) {
      switchedOn.reset(CreateEventW(nullptr, TRUE, TRUE, kSwitch));
    }
    return std::to_string(microseconds(times, actions.at(command)) / static_cast<double>(times));
  });
}

} // namespace
} // namespace bench

int main() {
  bench::run();
}
