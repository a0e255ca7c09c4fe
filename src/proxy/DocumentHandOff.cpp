#include "proxy/DocumentHandOff.h"

#include <system_error>

namespace proxy {

namespace {

win::Handle checkedHandle(HANDLE created) {
  if (created == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
  return win::Handle(created);
}

/// False if `cancelled` was signalled, alone or together with `wanted`.
bool waitUnlessCancelled(HANDLE cancelled, HANDLE wanted) noexcept {
  const HANDLE both[] = {cancelled, wanted};
  return WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
}

} // namespace

KernelWaits::Signal::Signal(bool signalled)
    : event_(checkedHandle(CreateEventA(nullptr, FALSE, signalled ? TRUE : FALSE, nullptr))) {}

void KernelWaits::Signal::set() noexcept {
  SetEvent(event_.get());
}

void KernelWaits::Signal::wait() noexcept {
  WaitForSingleObject(event_.get(), INFINITE);
}

bool KernelWaits::Signal::waitUnless(HANDLE cancelled) noexcept {
  return waitUnlessCancelled(cancelled, event_.get());
}

KernelWaits::Turn::Turn() : mutex_(checkedHandle(CreateMutexA(nullptr, FALSE, nullptr))) {}

bool KernelWaits::Turn::acquireUnless(HANDLE cancelled) noexcept {
  return waitUnlessCancelled(cancelled, mutex_.get());
}

void KernelWaits::Turn::release() noexcept {
  ReleaseMutex(mutex_.get());
}

} // namespace proxy
