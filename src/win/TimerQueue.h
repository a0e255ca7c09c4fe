#pragma once

#include <cstdint>

/// The platform's timer queue, without Windows headers, so that plain code can use it. Handles are
/// the platform's; null is invalid. Threads: any.
namespace win {

/// A Win32 error code; 0 is success.
using Error = std::uint32_t;

/// Creates a queue that is never deleted: its timers may fire until the process ends.
Error createTimerQueue(void*& queue) noexcept;

/// Calls `callback` once, with a null context, on a thread of `queue` after `milliseconds`. A
/// failure leaves `timer` unchanged.
using TimerCallback = void (*)(void* context, unsigned char fired);
Error startTimer(void*& timer, void* queue, TimerCallback callback,
                 std::uint32_t milliseconds) noexcept;

} // namespace win
