#pragma once

#include "proxy/HandOff.h"
#include "win/Handles.h"

/// The hand-off's waits on Windows: kernel objects, so that one wait can be for two of them.
/// Errors: making one throws std::system_error when the platform has no more.
struct KernelWaits {
  using Cancelled = HANDLE;

  class Signal {
  public:
    explicit Signal(bool signalled);
    void set() noexcept;
    void wait() noexcept;
    /// False when `cancelled` was signalled.
    bool waitUnless(HANDLE cancelled) noexcept;

  private:
    win::Handle event_;
  };

  /// A kernel mutex: leaving it hands it to one that waits, where the platform's own critical
  /// section may be taken again by the one that has left it.
  class Turn {
  public:
    Turn();
    /// False when `cancelled` was signalled.
    bool takeUnless(HANDLE cancelled) noexcept;
    void giveBack() noexcept;

  private:
    win::Handle mutex_;
  };
};

using DocumentHandOff = HandOff<KernelWaits>;
