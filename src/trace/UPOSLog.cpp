#include "trace/UPOSLog.h"

#include "trace/LogPlace.h"
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

namespace {

// Threads may trace while the process ends, so none of this is ever destroyed, and the handle of
// the writers' turn is never closed.
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

/// Shared for reading and writing: the log is looked at while it is written.
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

LogPlace findLog() {
  LogPlace place =
      installedLog([](const std::string& path) { return bool(openFile(path, "ab+")); });
  if (place.path.empty()) {
    place.path = logBeside(programName());
  }
  return place;
}

LogPlace& logPlace() {
  static LogPlace& place = *new LogPlace(findLog());
  return place;
}

/// Returns when it is this thread's turn to write. The one that creates the event has the first
/// turn; of two that create it at once, one.
void takeTurn() noexcept {
  HANDLE turn = writeEvent;
  if (turn == nullptr) {
    win::Handle created(CreateEventA(nullptr, FALSE, FALSE, "Write"));
    if (!created) {
      // Another process has that name for an object of another kind, or keeps it to itself: the
      // writers of this process still take turns.
      created.reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    }
    if (writeEvent.compare_exchange_strong(turn, created.get())) {
      created.release();
      return;
    }
  }
  WaitForSingleObject(turn, INFINITE);
}

void giveTurnBack() noexcept {
  SetEvent(writeEvent);
}

/// The size as the platform's 32-bit status gives it; none where there is no file.
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
  return logPlace().path;
}

void UPOSLog::emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept {
  try {
    write(logFilePath(), formatPrintf(format, arguments) + "\r\n");
  } catch (...) {
    // Without memory the line is lost. Nothing throws while the turn is held.
  }
}

void UPOSLog::write(const std::string& path, const std::string& message) {
  // Everything that needs memory is made before the turn is taken: a line that is lost for want of
  // memory must not keep the turn.
  const std::string stamp = timeStampNow();
  const std::string line = stamp + " " + message;
  const bool echoed = consoleEcho;
  // Odd, and kept: the console shows the message as a format without arguments, "%%" as one "%".
  const std::string echo = echoed ? stamp + formatPrintf(message, {}) : std::string();
  if (!isSwitchedOn()) {
    return;
  }
  if (!configRead) {
    readConfig();
  }

  takeTurn();
  const std::optional<std::uint32_t> currentFileSize = fileSize(path);
  // Without a limit (0) this holds for every line: its rotation thread does nothing. Kept.
  if (currentFileSize && stamp.size() + message.size() + *currentFileSize > fileSizeLimit) {
    if (const DWORD error = rotate(); error != ERROR_SUCCESS) {
      // Kept: the turn is not given back, so this very line and all later ones wait for ever.
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
    // Kept: the line is lost and the turn is not given back, so all later lines wait for ever.
    return;
  }
  std::fwrite(line.data(), 1, line.size(), file.get());
  file.reset();
  giveTurnBack();
}

/// Runs `backup` on a thread and waits until it has signalled its end; the system's error code
/// when the thread cannot be created.
std::uint32_t UPOSLog::rotate() noexcept {
  const win::Handle backupEvent(CreateEventA(nullptr, FALSE, FALSE, "BackUp"));
  const auto run = [](void* done) noexcept -> DWORD {
    try {
      backup();
    } catch (...) {
      // Without memory for the names the file grows on until the next line.
    }
    SetEvent(done);
    return 0;
  };
  const win::Handle backupThread(CreateThread(nullptr, 0, run, backupEvent.get(), 0, nullptr));
  if (!backupThread) {
    return GetLastError();
  }
  // The event's name is shared with other processes of the session. One of them may take the signal
  // away, or have the name for another kind of object: the thread's end is as good. Or signal it
  // early, while the thread is still at work with this handle: so its end is waited for as well.
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

void UPOSLog::readConfig() {
  // Set first: the lines that are traced from here on do not come back here.
  if (configRead.exchange(true)) {
    return;
  }
  const std::unique_ptr<const std::string> installDir = std::move(logPlace().installDir);
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
  // A setting holds from its own trace line on: with the size read first, a log that is too long
  // at that moment is deleted, whatever the number of copies read after it. Kept.
  TraceConfig::readFile(file.get(), [](const TraceSetting& setting) {
    if (setting.key == TraceSetting::Key::FileSize) {
      fileSizeLimit = static_cast<std::uint32_t>(setting.value);
    } else {
      backupCount = setting.value;
    }
    trace("Key : %s, Value : %i", setting.name(), setting.value);
  });
}
