#pragma once

#include <atomic>
#include <cstdint>

namespace com::orvex {

/// Determines when to ask the device servers for an update: every "provider.dataUpdate.frequency"
/// minutes (default 60), first one period after construction.
///
/// Threads: any, without a lock: two concurrent calls may both return true.
class Poller {
public:
  /// The process's poller: created on first use, never destroyed or reset.
  static Poller& instance();
  /// Replaces the process's poller permanently; for tests with their own clock.
  static void replaceInstance(Poller& poller) noexcept;

  /// Reads the configuration.
  Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  virtual ~Poller() = default;
  /// Calendar time in whole seconds.
  virtual std::int64_t currentTime();

  /// True if a period has passed since the last true; starts the next period. Always true for a
  /// period of 0 or less, unless the clock goes back.
  bool isPollingTime();

protected:
  Poller(std::int32_t minutes, std::int64_t now);

private:
  const std::int32_t period_; // seconds
  std::atomic<std::int64_t> lastPoll_;
};

} // namespace com::orvex
