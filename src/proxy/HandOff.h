#pragma once

#include <string>
#include <utility>

namespace proxy {

/// Hands documents from many producers to one consumer, one at a time: `put` waits until the
/// consumer waits in `take`; the next `take` waits until the consumer has called `release`.
///
/// Threads: `put` on any; `take` and `release` on the consumer's. Producers are served in turn.
/// Errors: those of constructing the members of `Waits`.
///
/// `Waits` provides the synchronisation: `Signal`, an auto-reset event (set, wait, waitUnless);
/// `Turn`, a fair mutex (acquireUnless, release); `Cancelled`, whose signal ends a producer's wait.
template <class Waits>
class HandOff {
public:
  HandOff() = default;
  HandOff(const HandOff&) = delete;
  HandOff& operator=(const HandOff&) = delete;

  /// Waits without a time-out; returns false once `cancelled` is signalled.
  bool put(std::string document, typename Waits::Cancelled cancelled) noexcept {
    if (!producerTurn_.acquireUnless(cancelled)) {
      return false;
    }
    const bool taken = consumerWaiting_.waitUnless(cancelled);
    if (taken) {
      slot_.swap(document);
      documentReady_.set();
    }
    producerTurn_.release();
    return taken;
  }

  /// Waits without a time-out.
  std::string take() {
    slotFree_.wait();
    consumerWaiting_.set();
    documentReady_.wait();
    return std::exchange(slot_, {});
  }

  /// Ends the processing of the document taken last.
  void release() noexcept { slotFree_.set(); }

private:
  typename Waits::Turn producerTurn_; // held by the producer in `put`
  typename Waits::Signal slotFree_{true};
  typename Waits::Signal documentReady_{false};
  typename Waits::Signal consumerWaiting_{false};
  std::string slot_; // the producer's from consumerWaiting to documentReady, else the consumer's
};

} // namespace proxy
