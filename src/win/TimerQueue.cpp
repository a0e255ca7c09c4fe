#include "win/TimerQueue.h"

#include <windows.h>

namespace win {

Error createTimerQueue(void*& queue) noexcept {
  queue = CreateTimerQueue();
  return queue != nullptr ? ERROR_SUCCESS : GetLastError();
}

Error startTimer(void*& timer, void* queue, TimerCallback callback,
                 std::uint32_t milliseconds) noexcept {
  HANDLE started = nullptr;
  if (!CreateTimerQueueTimer(&started, queue, callback, nullptr, milliseconds, 0, 0)) {
    return GetLastError();
  }
  timer = started;
  return ERROR_SUCCESS;
}

} // namespace win
