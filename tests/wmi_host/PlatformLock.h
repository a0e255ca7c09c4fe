#pragma once

#include <windows.h>

#include <mutex>

namespace wmi_host {

/// The locks of a single request. Each destroyed std::mutex of this compiler leaves some memory
/// allocated, which would count as a leak of the provider in this process.
class PlatformLock {
public:
  PlatformLock() = default;
  PlatformLock(const PlatformLock&) = delete;
  PlatformLock& operator=(const PlatformLock&) = delete;

  void lock() noexcept { AcquireSRWLockExclusive(&lock_); }
  void unlock() noexcept { ReleaseSRWLockExclusive(&lock_); }

private:
  friend class PlatformCondition;
  SRWLOCK lock_ = SRWLOCK_INIT;
};

class PlatformCondition {
public:
  void notify_all() noexcept { WakeAllConditionVariable(&condition_); }
  template <class Predicate>
  void wait(std::unique_lock<PlatformLock>& lock, Predicate isMet) {
    while (!isMet()) {
      SleepConditionVariableSRW(&condition_, &lock.mutex()->lock_, INFINITE, 0);
    }
  }

private:
  CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

} // namespace wmi_host
