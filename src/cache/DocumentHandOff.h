#pragma once

#include "win/Handles.h"

#include <string>

/// Hands documents from many producers to one consumer, one at a time: `put` waits until the
/// consumer waits in `take`, and the next `take` waits until the consumer has called `release`.
///
/// Threads: `put` from any; `take` and `release` from the consumer. Producers take turns, so that
/// one with many documents does not keep the others waiting.
class DocumentHandOff {
public:
  /// Throws std::system_error when the platform has no more events.
  DocumentHandOff();
  DocumentHandOff(const DocumentHandOff&) = delete;
  DocumentHandOff& operator=(const DocumentHandOff&) = delete;

  /// Waits without time-out, but gives up, false, once `cancelled` is signalled.
  bool put(std::string document, HANDLE cancelled) noexcept;
  /// Waits without time-out.
  std::string take();
  /// The document taken last has been dealt with.
  void release() noexcept;

private:
  // The producers' critical section. A kernel mutex: leaving it hands it to one that waits, where
  // the platform's own critical section may be taken again by the one that has left it.
  win::Handle putting_;
  win::Handle slotFree_;
  win::Handle documentReady_;
  win::Handle consumerWaiting_;
  std::string slot_; // the producer's from consumerWaiting to documentReady, then the consumer's
};
