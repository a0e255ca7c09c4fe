#pragma once

#include "win/Handles.h"

/// Limits the number of requests that are served at once.
namespace provider {

/// The longest wait for admission.
inline constexpr DWORD kAdmissionTimeoutMilliseconds = 300000;

/// Creates a semaphore that admits `limit` requests; 0 admits none. For a negative limit the
/// platform fails, and the empty handle admits every request.
inline win::Handle createAdmissionSemaphore(LONG limit) noexcept {
  // The platform also refuses a maximum of 0, hence 0 of 1.
  return win::Handle(CreateSemaphoreA(nullptr, limit, limit == 0 ? 1 : limit, nullptr));
}

/// A request's slot of the admission semaphore. Owner and thread: the request. The slot is returned
/// to the semaphore from which it was taken, even if a later Initialize has created a new one.
class AdmissionSlot {
public:
  /// Waits for a slot, at most kAdmissionTimeoutMilliseconds.
  explicit AdmissionSlot(HANDLE semaphore) noexcept
      : semaphore_(semaphore),
        // Kept: only a time-out rejects the request; a failed wait admits it.
        held_(WaitForSingleObject(semaphore, kAdmissionTimeoutMilliseconds) != WAIT_TIMEOUT) {}
  AdmissionSlot(const AdmissionSlot&) = delete;
  AdmissionSlot& operator=(const AdmissionSlot&) = delete;
  ~AdmissionSlot() { release(); }

  /// False if the wait timed out.
  explicit operator bool() const noexcept { return held_; }
  void release() noexcept {
    if (held_) {
      held_ = false;
      ReleaseSemaphore(semaphore_, 1, nullptr);
    }
  }

private:
  HANDLE semaphore_;
  bool held_;
};

} // namespace provider
