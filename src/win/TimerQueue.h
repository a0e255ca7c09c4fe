#pragma once

#include <cstdint>

/// The platform's timer queue, in a form that plain code can use. Any thread. Handles are the
/// platform's own, null where there is none.
namespace win {

/// An error of the platform; 0 for none.
using Error = std::uint32_t;

/// Makes a queue that nothing deletes: its timers may fire to the end of the process.
Error createTimerQueue(void*& queue) noexcept;

/// Calls `callback` once, with no context, on a thread of the queue's after so many milliseconds.
/// `timer` is left alone by a failure.
using TimerCallback = void (*)(void* context, unsigned char fired);
Error startTimer(void*& timer, void* queue, TimerCallback callback,
                 std::uint32_t milliseconds) noexcept;

} // namespace win
