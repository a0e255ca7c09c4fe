#include "Threads.h"

#include <windows.h>
#include <objbase.h>

#include <condition_variable>
#include <mutex>
#include <queue>
#include <thread>
#include <utility>

namespace wmi_host {
namespace {

/// Never destroyed: the threads run until the process ends.
class Threads {
public:
  void run(std::function<void()> work) {
    const std::scoped_lock lock(mutex_);
    waiting_.push(std::move(work));
    if (idle_ >= waiting_.size()) {
      changed_.notify_one();
    } else {
      std::thread([this] { serve(); }).detach();
    }
  }

private:
  [[noreturn]] void serve() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    for (;;) {
      std::function<void()> work;
      {
        std::unique_lock lock(mutex_);
        ++idle_;
        changed_.wait(lock, [this] { return !waiting_.empty(); });
        --idle_;
        work = std::move(waiting_.front());
        waiting_.pop();
      }
      work();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::queue<std::function<void()>> waiting_;
  std::size_t idle_ = 0;
};

} // namespace

void runOnThread(std::function<void()> work) {
  static auto& threads = *new Threads;
  threads.run(std::move(work));
}

} // namespace wmi_host
