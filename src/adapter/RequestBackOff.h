#pragma once

#include "win/Configuration.h"

#include <atomic>
#include <cstdint>

namespace adapter {

/// The back-off after a failed connect: for `retryTimeout` milliseconds every request gets an empty
/// answer at once, so that WMI clients do not wait for a device server that is down.
///
/// Threads: any request thread; a timer-queue thread clears the flag. If two requests fail at about
/// the same time, each starts a timer and the first to fire ends the back-off.
/// Errors: traced only.
struct RequestBackOff {
  std::atomic<std::uint8_t> serverOffline = 0; ///< 1 while requests are skipped
  std::atomic<std::uint32_t> retryTimeout = configuration::kDefaultRetryTimeout;
  std::atomic<void*> timerQueue = nullptr; ///< created once, never deleted
  std::atomic<void*> timer = nullptr;      ///< the last one started; timers are never deleted
};
extern RequestBackOff requestBackOff;

/// Reads `retryTimeout` and creates the timer queue, once per process; retried after a failure.
void configureTimers();

/// Starts the back-off. It lasts `retryTimeout`, not 5 seconds; the name is kept.
void signalServerIsOfflineFor5Seconds();

/// The timer's callback; ends the back-off.
void TimeoutExpired(void* context, unsigned char fired) noexcept;

} // namespace adapter
