#pragma once

#include <condition_variable>
#include <mutex>

namespace test_support {

/// Lets the threads that wait for it begin at once. Not std::latch, std::barrier or
/// std::atomic::wait: those of the Windows compiler's library lose a wake-up now and then.
class StartSignal {
public:
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return given_; });
  }
  void give() {
    const std::scoped_lock lock(mutex_);
    given_ = true;
    changed_.notify_all();
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool given_ = false;
};

} // namespace test_support
