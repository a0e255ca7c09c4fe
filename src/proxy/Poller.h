#pragma once

#include <atomic>
#include <cstdint>

namespace com::orvex {

/// Tells when the device servers are to be asked for an update: every
/// "provider.dataUpdate.frequency" minutes (60 when it is not configured), for the first time one
/// period after it was made.
///
/// Threads: any, without a lock: two that ask at the same moment may both be told that it is time.
/// The slot order is fixed.
class Poller {
public:
  /// The process's poller: made on first use, never destroyed or reset.
  static Poller& instance();
  /// Puts another poller in its place, for good; for tests with a clock of their own.
  static void replaceInstance(Poller& poller) noexcept;

  /// Reads the configuration.
  Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  virtual ~Poller() = default;
  /// Calendar time in whole seconds.
  virtual std::int64_t currentTime();

  /// True when a period has passed since it was true last; the next one then begins. With a period
  /// of 0 or less always true.
  bool isPollingTime();

protected:
  Poller(std::int32_t minutes, std::int64_t now);

private:
  const std::int32_t period_; // seconds
  std::atomic<std::int64_t> lastPoll_;
};

} // namespace com::orvex
