#include "RecordedTrace.h"

#include "trace/UPOSLog.h"

#include <atomic>
#include <mutex>
#include <utility>

using trace::TraceArgument;
using trace::UPOSLog;

namespace {
std::mutex mutex;
std::vector<std::string> recorded;
std::function<void(const std::string&)> observer;
std::atomic<bool> switchedOn = true;
std::atomic<int> asked = 0;
} // namespace

namespace recorded_trace {
std::vector<std::string> lines() {
  std::scoped_lock lock(mutex);
  return recorded;
}
void clear() {
  std::scoped_lock lock(mutex);
  recorded.clear();
}
void setSwitchedOn(bool on) {
  switchedOn = on;
}
int timesAsked() {
  return asked;
}
void setObserver(std::function<void(const std::string&)> wanted) {
  std::scoped_lock lock(mutex);
  observer = std::move(wanted);
}
} // namespace recorded_trace

bool UPOSLog::isSwitchedOn() noexcept {
  ++asked;
  return switchedOn;
}
void UPOSLog::setConsoleEcho() noexcept {}

void UPOSLog::emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept {
  std::scoped_lock lock(mutex);
  std::string line = trace::formatPrintf(format, arguments);
  if (observer) {
    observer(line);
  }
  recorded.push_back(std::move(line));
}
