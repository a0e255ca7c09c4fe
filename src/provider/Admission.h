#pragma once

#include "win/Handles.h"

/// The limit on the requests that are served at once.
namespace provider {

/// How long a request waits for its turn.
inline constexpr DWORD kAdmissionTimeoutMilliseconds = 300000;

/// A semaphore that admits `limit` requests. 0 admits nobody; a negative limit is refused by the
/// platform, and the empty handle that is returned then limits nothing.
inline win::Handle createAdmissionSemaphore(LONG limit) noexcept {
  // The platform refuses a maximum of 0 as well, so none of 1 stands for it.
  return win::Handle(CreateSemaphoreA(nullptr, limit, limit == 0 ? 1 : limit, nullptr));
}

/// One request's turn. Owner and thread: the request's. The turn is given back to the semaphore it
/// was taken from, also when a new one has been set up meanwhile.
class AdmissionSlot {
public:
  /// Waits for the turn.
  explicit AdmissionSlot(HANDLE semaphore) noexcept
      : semaphore_(semaphore),
        // Kept: only the time-out turns a request away; a wait that fails admits it.
        held_(WaitForSingleObject(semaphore, kAdmissionTimeoutMilliseconds) != WAIT_TIMEOUT) {}
  AdmissionSlot(const AdmissionSlot&) = delete;
  AdmissionSlot& operator=(const AdmissionSlot&) = delete;
  ~AdmissionSlot() { release(); }

  /// False when the wait timed out.
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
