#include "cache/DocumentHandOff.h"

#include <system_error>
#include <utility>

namespace {

win::Handle required(HANDLE created) {
  if (created == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
  return win::Handle(created);
}

win::Handle autoResetEvent(bool signalled) {
  return required(CreateEventA(nullptr, FALSE, signalled ? TRUE : FALSE, nullptr));
}

/// True when `wanted` was signalled, false when `cancelled` was.
bool waitUnless(HANDLE cancelled, HANDLE wanted) noexcept {
  const HANDLE both[] = {cancelled, wanted};
  return WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
}

} // namespace

DocumentHandOff::DocumentHandOff()
    : putting_(required(CreateMutexA(nullptr, FALSE, nullptr))), slotFree_(autoResetEvent(true)),
      documentReady_(autoResetEvent(false)), consumerWaiting_(autoResetEvent(false)) {}

bool DocumentHandOff::put(std::string document, HANDLE cancelled) noexcept {
  if (!waitUnless(cancelled, putting_.get())) {
    return false;
  }
  const bool taken = waitUnless(cancelled, consumerWaiting_.get());
  if (taken) {
    slot_.swap(document);
    SetEvent(documentReady_.get());
  }
  ReleaseMutex(putting_.get());
  return taken;
}

std::string DocumentHandOff::take() {
  WaitForSingleObject(slotFree_.get(), INFINITE);
  SetEvent(consumerWaiting_.get());
  WaitForSingleObject(documentReady_.get(), INFINITE);
  return std::exchange(slot_, {});
}

void DocumentHandOff::release() noexcept {
  SetEvent(slotFree_.get());
}
