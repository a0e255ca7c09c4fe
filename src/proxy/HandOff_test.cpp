#include "proxy/HandOff.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using proxy::HandOff;

namespace {

/// Synchronises only by its signals, so that ThreadSanitizer checks the protocol of the hand-off.
struct BareWaits {
  using Cancelled = const std::atomic<bool>&;

  class Signal {
  public:
    explicit Signal(bool signalled) : set_(signalled) {}
    void set() noexcept { set_.store(true, std::memory_order_release); }
    void wait() noexcept {
      const std::atomic<bool> never = false;
      waitUnless(never);
    }
    bool waitUnless(Cancelled cancelled) noexcept {
      for (;;) {
        if (cancelled.load(std::memory_order_relaxed)) {
          return false;
        }
        bool expected = true;
        if (set_.compare_exchange_strong(expected, false, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
          return true;
        }
        std::this_thread::yield();
      }
    }

  private:
    std::atomic<bool> set_;
  };

  class Turn {
  public:
    bool acquireUnless(Cancelled cancelled) noexcept { return free_.waitUnless(cancelled); }
    void release() noexcept { free_.set(); }

  private:
    Signal free_{true};
  };
};

TEST(HandOffThreads, DocumentsOfManyProducersReachTheConsumerWholeAndInOrder) {
  constexpr int kProducers = 3;
  constexpr int kDocuments = 300;
  const std::atomic<bool> cancelled = false;
  HandOff<BareWaits> handOff;
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&, producer] {
      for (int i = 0; i < kDocuments; ++i) {
        // Longer than the short-string buffer.
        ASSERT_TRUE(handOff.put(
            std::to_string(producer) + std::string(100, ' ') + std::to_string(i), cancelled));
      }
    });
  }
  std::vector<int> next(kProducers, 0);
  for (int i = 0; i < kProducers * kDocuments; ++i) {
    const std::string document = handOff.take();
    const auto producer = static_cast<std::size_t>(document.at(0) - '0');
    EXPECT_EQ(std::stoi(document.substr(1)), next.at(producer)++);
    handOff.release();
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
}

TEST(HandOffThreads, CancelledProducersGiveUpAndLeaveTheConsumerWaiting) {
  std::atomic<bool> cancelled = false;
  HandOff<BareWaits> handOff;
  std::atomic<int> givenUp = 0;
  std::vector<std::thread> producers;
  for (int producer = 0; producer < 3; ++producer) {
    producers.emplace_back([&] { givenUp += handOff.put("never taken", cancelled) ? 0 : 1; });
  }
  cancelled = true;
  for (std::thread& producer : producers) {
    producer.join();
  }
  EXPECT_EQ(givenUp, 3);

  cancelled = false;
  std::thread later([&] { EXPECT_TRUE(handOff.put("taken", cancelled)); });
  EXPECT_EQ(handOff.take(), "taken");
  later.join();
}

} // namespace
