#pragma once

#include <atomic>
#include <cstdint>

/// The pause after a failed connect: for `retryTimeout` milliseconds requests are answered empty at
/// once, so that WMI clients need not wait for a device server that is down.
///
/// Threads: any request thread; the flag is cleared by a thread of the timer queue. Two requests
/// that fail at about the same time each start a timer, and the one that fires first ends the
/// pause. Errors are traced only.
struct RequestBackOff {
  std::atomic<std::uint8_t> serverOffline = 0; ///< 1 while requests are to be skipped
  std::atomic<std::uint32_t> retryTimeout = 10000;
  std::atomic<void*> timerQueue = nullptr; ///< made once, lives to the end of the process
  std::atomic<void*> timer = nullptr;      ///< the one started last; none is ever deleted
};
extern RequestBackOff requestBackOff;

/// Reads `retryTimeout` and makes the timer queue, once per process.
void configureTimers();

/// Starts the pause. Named after a former pause of 5 seconds; it takes `retryTimeout`.
void signalServerIsOfflineFor5Seconds();

/// The timer's callback: ends the pause.
void TimeoutExpired(void* context, unsigned char fired) noexcept;
