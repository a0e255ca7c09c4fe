#pragma once

#include "proxy/HandOff.h"
#include "win/Handles.h"

namespace proxy {

/// The hand-off's synchronisation on Windows: kernel objects, so that one wait can be for two of
/// them. Errors: constructors throw std::system_error.
struct KernelWaits {
  using Cancelled = HANDLE;

  class Signal {
  public:
    explicit Signal(bool signalled);
    void set() noexcept;
    void wait() noexcept;
    /// False if `cancelled` was signalled first.
    bool waitUnless(HANDLE cancelled) noexcept;

  private:
    win::Handle event_;
  };

  /// A kernel mutex, which passes to a waiting thread on release; a critical section may be
  /// re-acquired by the thread that has just left it.
  class Turn {
  public:
    Turn();
    /// False if `cancelled` was signalled first.
    bool acquireUnless(HANDLE cancelled) noexcept;
    void release() noexcept;

  private:
    win::Handle mutex_;
  };
};

using DocumentHandOff = HandOff<KernelWaits>;

} // namespace proxy
