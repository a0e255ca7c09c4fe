#include "RecordedTrace.h"
#include "adapter/RequestBackOff.h"
#include "win/TimerQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using adapter::configureTimers;
using adapter::requestBackOff;
using adapter::signalServerIsOfflineFor5Seconds;

namespace {

std::atomic<int> queues = 0;
std::atomic<int> fired = 0;
std::mutex starting;
std::vector<std::thread> timers; // guarded by starting

/// A request thread whose connects fail, until there have been `pauses` back-offs.
void failRequests(int pauses) {
  while (fired < pauses) {
    if (requestBackOff.serverOffline == 0) {
      configureTimers();
      signalServerIsOfflineFor5Seconds();
    }
  }
}

// The trace is off: its lock would order the threads and hide a race from ThreadSanitizer.
TEST(RequestBackOffThreads, ConcurrentFailuresCreateOneQueueAndEndTheBackOff) {
  recorded_trace::setSwitchedOn(false);
  std::vector<std::thread> requests;
  for (int thread = 0; thread < 4; ++thread) {
    requests.emplace_back([] { failRequests(100); });
  }
  for (std::thread& request : requests) {
    request.join();
  }
  const std::size_t started = timers.size();
  for (std::thread& timer : timers) {
    timer.join();
  }
  recorded_trace::setSwitchedOn(true);

  EXPECT_EQ(queues, 1);
  EXPECT_GE(started, 100U);
  EXPECT_EQ(fired, static_cast<int>(started));
  EXPECT_EQ(requestBackOff.retryTimeout, 10000U);
  // Each timer ends the back-off, and after the last one no thread starts another.
  EXPECT_EQ(requestBackOff.serverOffline, 0);
}

} // namespace

// Replaces the platform's: each timer is a thread that fires at once.
namespace win {

Error createTimerQueue(void*& queue) noexcept {
  ++queues;
  std::this_thread::sleep_for(std::chrono::milliseconds(20)); // lets the others arrive
  queue = &queues;
  return 0;
}

Error startTimer(void*& timer, void* queue, TimerCallback callback, std::uint32_t) noexcept {
  EXPECT_EQ(queue, &queues);
  timer = queue;
  const std::scoped_lock lock(starting);
  timers.emplace_back([callback] {
    callback(nullptr, 1);
    ++fired;
  });
  return 0;
}

} // namespace win
