#pragma once

#include <string>
#include <utility>

/// Hands documents from many producers to one consumer, one at a time: `put` waits until the
/// consumer waits in `take`, and the next `take` waits until the consumer has called `release`.
///
/// Threads: `put` from any; `take` and `release` from the consumer. Producers take turns, so that
/// one with many documents does not keep the others waiting.
///
/// `Waits` is what the platform waits with: `Signal`, an auto-reset event (made signalled or not;
/// set, wait, waitUnless), `Turn` (takeUnless, giveBack), which goes to one that waits for it, and
/// `Cancelled`, what a producer's wait may be ended by. Errors: what making these throws.
template <class Waits>
class HandOff {
public:
  HandOff() = default;
  HandOff(const HandOff&) = delete;
  HandOff& operator=(const HandOff&) = delete;

  /// Waits without time-out, but gives up, false, once `cancelled` is signalled.
  bool put(std::string document, typename Waits::Cancelled cancelled) noexcept {
    if (!putting_.takeUnless(cancelled)) {
      return false;
    }
    const bool taken = consumerWaiting_.waitUnless(cancelled);
    if (taken) {
      slot_.swap(document);
      documentReady_.set();
    }
    putting_.giveBack();
    return taken;
  }

  /// Waits without time-out.
  std::string take() {
    slotFree_.wait();
    consumerWaiting_.set();
    documentReady_.wait();
    return std::exchange(slot_, {});
  }

  /// The document taken last has been dealt with.
  void release() noexcept { slotFree_.set(); }

private:
  typename Waits::Turn putting_; // the producers' critical section
  typename Waits::Signal slotFree_{true};
  typename Waits::Signal documentReady_{false};
  typename Waits::Signal consumerWaiting_{false};
  std::string slot_; // the producer's from consumerWaiting to documentReady, then the consumer's
};
