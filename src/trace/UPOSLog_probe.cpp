// Executes its arguments as commands on the real trace log, in order, and prints each completed
// command. Each test runs its own process, because the log's state is process-wide.
//
//   event | autoevent    creates the enabling event, not signalled, with manual or automatic reset
//   signal | reset       ... signals it, resets it
//   trace TEXT           traces TEXT through "%s"
//   format TEXT          traces TEXT as the format
//   long COUNT           traces COUNT letters
//   threads COUNT LINES  traces LINES lines "thread I line J" from each of COUNT threads at once
//   path                 prints the log's path
//   echo                 enables the console echo
//   occupy               opens the log exclusively
//   pin                  opens the log so that it can be written but not renamed or deleted
//   name KIND NAME       creates a mutex, an auto-reset or a signalled manual-reset event
//   thief NAME           consumes the signals of the auto-reset event of that name
//   countthreads         prints the number of threads that the log has created since the last call
//   nothreads            makes CreateThread fail from now on
//   slowevents           delays the creation of named events, to provoke races
//   overlaps             prints how many rotations started during the start of another
//   shortage             traces repeatedly, with a different allocation failing each time
//   atexit               traces from a static destructor and from a thread

#include "PatchedImport.h"
#include "StartSignal.h"
#include "trace/UPOSLog.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using test_support::PatchedImport;
using test_support::StartSignal;
using trace::UPOSLog;

namespace {

std::atomic<int> untilShortage = -1;
std::atomic<int> threadsCreated = 0;
std::atomic<bool> threadsRefused = false;
bool tracesAtExit = false;
std::atomic<bool> eventsAreSlow = false;
std::atomic<int> rotationsBegun = 0;
std::atomic<int> overlaps = 0;
decltype(&CreateThread) systemCreateThread = nullptr;
decltype(&CreateEventA) systemCreateEvent = nullptr;

} // namespace

void* operator new(std::size_t size) {
  if (untilShortage >= 0 && untilShortage-- == 0) {
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

HANDLE WINAPI countedCreateThread(SECURITY_ATTRIBUTES* attributes, SIZE_T stack,
                                  LPTHREAD_START_ROUTINE start, void* parameter, DWORD flags,
                                  DWORD* id) {
  if (threadsRefused) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  ++threadsCreated;
  return systemCreateThread(attributes, stack, start, parameter, flags, id);
}

HANDLE WINAPI slowCreateEvent(SECURITY_ATTRIBUTES* attributes, BOOL manual, BOOL signalled,
                              const char* name) {
  const HANDLE event = systemCreateEvent(attributes, manual, signalled, name);
  if (eventsAreSlow && name != nullptr) {
    const bool rotation = std::string_view(name) == "BackUp";
    if (rotation && rotationsBegun++ > 0) {
      ++overlaps;
    }
    Sleep(50);
    if (rotation) {
      --rotationsBegun;
    }
  }
  return event;
}

struct TracesAtExit {
  ~TracesAtExit() {
    if (tracesAtExit) {
      UPOSLog::trace("from a static destructor");
    }
  }
} atExit;

void traceFromThreads(int count, int lines) {
  StartSignal start;
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&start, i, lines] {
      start.wait();
      for (int j = 0; j < lines; ++j) {
        UPOSLog::trace("thread %d line %d", i, j);
      }
    });
  }
  start.give();
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void traceThroughShortages() {
  const std::string text(100, 'x');
  int shortages = 0;
  for (;; ++shortages) {
    untilShortage = shortages;
    UPOSLog::trace("shortage %s", text);
    if (untilShortage.exchange(-1) >= 0) {
      break;
    }
  }
  std::printf("%d shortages\n", shortages);
}

bool takeName(std::string_view kind, const char* name) {
  const HANDLE object = kind == "mutex"
                            ? CreateMutexA(nullptr, FALSE, name)
                            : systemCreateEvent(nullptr, kind == "manual", kind == "manual", name);
  return object != nullptr && GetLastError() != ERROR_ALREADY_EXISTS;
}

/// Waits on many threads for the event of that name, so that other waiters rarely get a signal.
bool stealSignals(const char* name) {
  const HANDLE event = systemCreateEvent(nullptr, FALSE, FALSE, name);
  for (int i = 0; i < 20; ++i) {
    std::thread([event] {
      for (;;) {
        WaitForSingleObject(event, INFINITE);
      }
    }).detach();
  }
  return event != nullptr;
}

bool perform(std::string_view command, const char* first, const char* second, int& used) {
  static HANDLE event = nullptr;
  if (command == "event" || command == "autoevent") {
    event = CreateEventA(nullptr, command == "event", FALSE, "Global\\TRC_QUILLMON");
    return event != nullptr;
  }
  if (command == "signal") {
    return SetEvent(event);
  }
  if (command == "reset") {
    return ResetEvent(event);
  }
  if (command == "trace" && first != nullptr) {
    ++used;
    UPOSLog::trace("%s", first);
    return true;
  }
  if (command == "format" && first != nullptr) {
    ++used;
    UPOSLog::trace(first);
    return true;
  }
  if (command == "long" && first != nullptr) {
    ++used;
    UPOSLog::trace("%s", std::string(std::strtoul(first, nullptr, 10), 'x'));
    return true;
  }
  if (command == "threads" && second != nullptr) {
    used += 2;
    traceFromThreads(static_cast<int>(std::strtoul(first, nullptr, 10)),
                     static_cast<int>(std::strtoul(second, nullptr, 10)));
    return true;
  }
  if (command == "path") {
    std::printf("%s\n", UPOSLog::logFilePath().c_str());
    return true;
  }
  if (command == "echo") {
    UPOSLog::setConsoleEcho();
    return true;
  }
  if (command == "occupy") {
    return CreateFileA(UPOSLog::logFilePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                       nullptr) != INVALID_HANDLE_VALUE;
  }
  if (command == "pin") {
    return CreateFileA(UPOSLog::logFilePath().c_str(), GENERIC_READ,
                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                       nullptr) != INVALID_HANDLE_VALUE;
  }
  if (command == "name" && second != nullptr) {
    used += 2;
    return takeName(first, second);
  }
  if (command == "thief" && first != nullptr) {
    ++used;
    return stealSignals(first);
  }
  if (command == "countthreads") {
    std::printf("%d threads\n", threadsCreated.exchange(0));
    return true;
  }
  if (command == "slowevents") {
    eventsAreSlow = true;
    return true;
  }
  if (command == "overlaps") {
    std::printf("%d overlaps\n", overlaps.load());
    return true;
  }
  if (command == "nothreads") {
    threadsRefused = true;
    return true;
  }
  if (command == "shortage") {
    traceThroughShortages();
    return true;
  }
  if (command == "atexit") {
    tracesAtExit = true;
    std::thread([] {
      for (;;) {
        UPOSLog::trace("from a thread");
      }
    }).detach();
    return true;
  }
  return false;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): it ends the probe, and the test of it fails
int main(int argc, char** argv) {
  const PatchedImport<decltype(CreateThread)> threads("CreateThread", &countedCreateThread);
  const PatchedImport<decltype(CreateEventA)> events("CreateEventA", &slowCreateEvent);
  systemCreateThread = threads.original();
  systemCreateEvent = events.original();
  for (int i = 1; i < argc; ++i) {
    const char* first = i + 1 < argc ? argv[i + 1] : nullptr;
    const char* second = i + 2 < argc ? argv[i + 2] : nullptr;
    const std::string command = argv[i];
    if (!perform(command, first, second, i)) {
      std::printf("cannot %s\n", command.c_str());
      return 2;
    }
    std::printf("%s done\n", command.c_str());
    std::fflush(stdout);
  }
  return 0;
}
