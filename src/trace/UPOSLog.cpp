#include "trace/UPOSLog.h"

#include "trace/LogLocation.h"
#include "trace/TimeStamp.h"
#include "trace/TraceConfig.h"
#include "win/Handles.h"

#include <share.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace trace {

namespace {

// Threads may trace while the process ends, so this state is never destroyed and the handle of the
// write event is never closed.
constinit std::atomic<bool> traceEnabled = false;
constinit std::atomic<bool> consoleEcho = false;
constinit std::atomic<bool> configRead = false;
constinit std::atomic<std::uint32_t> fileSizeLimit = 0;
constinit std::atomic<std::int32_t> backupCount = 0;
constinit std::atomic<HANDLE> writeEvent = nullptr;

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

/// Opens with full sharing, so that the log can be read while it is written.
File openFile(const std::string& path, const char* mode) {
  return File(_fsopen(path.c_str(), mode, _SH_DENYNO));
}

std::string programName() {
  std::string name(80, '\0');
  DWORD length = 0;
  while ((length = GetModuleFileNameA(nullptr, name.data(), static_cast<DWORD>(name.size()))) ==
         name.size()) {
    name.resize(name.size() + 80);
  }
  name.resize(length);
  return name;
}

LogLocation findLogLocation() {
  LogLocation location =
      installedLogLocation([](const std::string& path) { return bool(openFile(path, "ab+")); });
  if (location.path.empty()) {
    location.path = fallbackLogPath(programName());
  }
  return location;
}

LogLocation& logLocation() {
  static LogLocation& location = *new LogLocation(findLogLocation());
  return location;
}

/// Waits for the write event. The thread that creates the event (one, if several try at once) owns
/// the first turn.
void acquireWriteEvent() noexcept {
  HANDLE turn = writeEvent;
  if (turn == nullptr) {
    win::Handle created(CreateEventA(nullptr, FALSE, FALSE, "Write"));
    if (!created) {
      // Another process uses the name for an object of another kind or denies access. An unnamed
      // event still serialises the writers of this process.
      created.reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    }
    if (writeEvent.compare_exchange_strong(turn, created.get())) {
      created.release();
      return;
    }
  }
  WaitForSingleObject(turn, INFINITE);
}

void releaseWriteEvent() noexcept {
  SetEvent(writeEvent);
}

/// The low 32 bits of the file's size; none if there is no file.
std::optional<std::uint32_t> fileSize(const std::string& path) noexcept {
  WIN32_FILE_ATTRIBUTE_DATA status;
  if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &status)) {
    return std::nullopt;
  }
  return status.nFileSizeLow;
}

std::string timeStampNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_s(&local, &now);
  return timeStamp(local);
}

} // namespace

bool UPOSLog::isSwitchedOn() noexcept {
  const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, L"Global\\TRC_QUILLMON"));
  if (event && WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0) {
    traceEnabled = true;
  }
  return traceEnabled;
}

void UPOSLog::setConsoleEcho() noexcept {
  consoleEcho = true;
}

const std::string& UPOSLog::logFilePath() {
  return logLocation().path;
}

// NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
void UPOSLog::emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept {
  try {
    write(logFilePath(), formatPrintf(format, arguments) + "\r\n");
  } catch (...) {
    // Out of memory: the line is lost. Nothing throws while the write event is held.
  }
}

// NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
void UPOSLog::write(const std::string& path, const std::string& message) {
  // All memory is allocated before the write event is taken, so that std::bad_alloc cannot leave it
  // taken.
  const std::string stamp = timeStampNow();
  const std::string line = stamp + " " + message;
  const bool echoed = consoleEcho;
  // Kept: the message is the format of the console line, without arguments; "%%" prints "%".
  const std::string echo = echoed ? stamp + formatPrintf(message, {}) : std::string();
  if (!isSwitchedOn()) {
    return;
  }
  if (!configRead) {
    readConfig();
  }

  acquireWriteEvent();
  const std::optional<std::uint32_t> currentFileSize = fileSize(path);
  // Kept: without a limit (0) every line starts a rotation thread, which does nothing.
  if (currentFileSize && stamp.size() + message.size() + *currentFileSize > fileSizeLimit) {
    if (const DWORD error = rotate(); error != ERROR_SUCCESS) {
      // Kept: the write event stays taken, so this line and all later ones block for ever.
      trace("UPOSLog: Error in Creating thread : %i", error);
      return;
    }
  }
  File file = openFile(path, "ab+");
  if (echoed) {
    std::fwrite(echo.data(), 1, echo.size(), stdout);
    std::fflush(stdout);
  }
  if (!file) {
    // Kept: the line is lost and the write event stays taken, so all later lines block for ever.
    return;
  }
  std::fwrite(line.data(), 1, line.size(), file.get());
  file.reset();
  releaseWriteEvent();
}

/// Runs `backup` on a thread and waits for its end. Returns the error of creating the thread.
std::uint32_t UPOSLog::rotate() noexcept {
  const win::Handle backupEvent(CreateEventA(nullptr, FALSE, FALSE, "BackUp"));
  const auto run = [](void* done) noexcept -> DWORD {
    try {
      backup();
    } catch (...) {
      // Out of memory: the rotation is retried with the next line.
    }
    SetEvent(done);
    return 0;
  };
  const win::Handle backupThread(CreateThread(nullptr, 0, run, backupEvent.get(), 0, nullptr));
  if (!backupThread) {
    return GetLastError();
  }
  // The event's name is shared with the other processes of the session. One of them may consume the
  // signal or use the name for another kind of object, so the thread's end counts as well. One may
  // signal it early, while the thread still uses the handle, so the thread's end is awaited too.
  const HANDLE either[] = {backupEvent.get(), backupThread.get()};
  WaitForMultipleObjects(2, either, FALSE, INFINITE);
  WaitForSingleObject(backupThread.get(), INFINITE);
  return ERROR_SUCCESS;
}

void UPOSLog::backup() {
  const int count = backupCount;
  if (fileSizeLimit == 0) {
    return;
  }
  const std::string& path = logFilePath();
  if (count < 1) {
    DeleteFileA(path.c_str());
    return;
  }
  for (int i = count; i >= 1; --i) {
    const std::string source = i == 1 ? path : path + "." + std::to_string(i - 1);
    const std::string target = path + "." + std::to_string(i);
    DeleteFileA(target.c_str());
    MoveFileA(source.c_str(), target.c_str());
  }
}

// NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
void UPOSLog::readConfig() {
  // Set first: the lines traced below must not recurse.
  if (configRead.exchange(true)) {
    return;
  }
  const std::unique_ptr<const std::string> installDir = std::move(logLocation().installDir);
  if (!installDir) {
    trace("No configuration file found, disabling settings");
    return;
  }
  const std::string path = traceConfigurationFile(*installDir);
  trace("Name of Config file to read : %s", path);
  const File file = openFile(path, "r");
  if (!file) {
    trace("No configuration file found, disabling settings");
    backupCount = 0;
    fileSizeLimit = 0;
    return;
  }
  // Kept: a setting applies from its own trace line on. If the size comes first, a log that is then
  // too long is deleted, whatever backup count follows.
  // NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
  TraceConfig::readFile(file.get(), [](const TraceSetting& setting) {
    if (setting.key == TraceSetting::Key::FileSize) {
      fileSizeLimit = static_cast<std::uint32_t>(setting.value);
    } else {
      backupCount = setting.value;
    }
    trace("Key : %s, Value : %i", setting.name(), setting.value);
  });
}

} // namespace trace
