#include "PatchedImport.h"
#include "proxy/DocumentHandOff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using proxy::DocumentHandOff;

namespace {

class DocumentHandOffTest : public testing::Test {
protected:
  std::future<bool> startPut(const std::string& document) {
    return std::async(std::launch::async,
                      [this, document] { return handOff_.put(document, cancelled_.get()); });
  }
  std::future<std::string> startTake() {
    return std::async(std::launch::async, [this] { return handOff_.take(); });
  }
  /// True if the future is not ready within a short wait.
  template <class Future>
  static bool isWaiting(Future& future) {
    return future.wait_for(50ms) == std::future_status::timeout;
  }

  DocumentHandOff handOff_;
  win::Handle cancelled_{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
};

TEST_F(DocumentHandOffTest, HandsADocumentOver) {
  auto put = startPut("document");
  EXPECT_EQ(handOff_.take(), "document");
  EXPECT_TRUE(put.get());
}

TEST_F(DocumentHandOffTest, TheProducerWaitsForTheConsumer) {
  auto put = startPut("document");
  EXPECT_TRUE(isWaiting(put));
  handOff_.take();
  EXPECT_TRUE(put.get());
}

TEST_F(DocumentHandOffTest, TheConsumerWaitsForAProducer) {
  auto take = startTake();
  EXPECT_TRUE(isWaiting(take));
  EXPECT_TRUE(handOff_.put("document", cancelled_.get()));
  EXPECT_EQ(take.get(), "document");
}

TEST_F(DocumentHandOffTest, TheNextDocumentWaitsForTheReleaseOfTheOneInFlight) {
  auto first = startPut("first");
  EXPECT_EQ(handOff_.take(), "first");
  EXPECT_TRUE(first.get());
  auto second = startPut("second");
  auto take = startTake();
  EXPECT_TRUE(isWaiting(take));
  EXPECT_TRUE(isWaiting(second));
  handOff_.release();
  EXPECT_EQ(take.get(), "second");
  EXPECT_TRUE(second.get());
}

TEST_F(DocumentHandOffTest, HandsOverAnEmptyAndAVeryLongDocument) {
  for (const std::string& document : {std::string(), std::string(5'000'000, 'x')}) {
    auto put = startPut(document);
    EXPECT_EQ(handOff_.take(), document);
    handOff_.release();
    EXPECT_TRUE(put.get());
  }
}

TEST_F(DocumentHandOffTest, ACancelledProducerGivesUpAndSoDoThoseWaitingBehindIt) {
  std::vector<std::future<bool>> puts;
  for (int i = 0; i < 5; ++i) {
    puts.push_back(startPut("never taken"));
  }
  SetEvent(cancelled_.get());
  for (auto& put : puts) {
    EXPECT_FALSE(put.get());
  }
  EXPECT_FALSE(handOff_.put("too late", cancelled_.get()));
}

TEST_F(DocumentHandOffTest, AConsumerThatWaitedThroughACancellationTakesTheNextDocument) {
  auto take = startTake();
  SetEvent(cancelled_.get());
  startPut("given up").get();
  ResetEvent(cancelled_.get());
  EXPECT_TRUE(handOff_.put("taken", cancelled_.get()));
  EXPECT_EQ(take.get(), "taken");
}

TEST_F(DocumentHandOffTest, ManyProducersLoseNothingAndKeepTheirOrder) {
  constexpr int kProducers = 8;
  constexpr int kDocuments = 200;
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([this, producer] {
      for (int i = 0; i < kDocuments; ++i) {
        EXPECT_TRUE(
            handOff_.put(std::to_string(producer) + " " + std::to_string(i), cancelled_.get()));
      }
    });
  }
  std::map<int, int> next;
  for (int i = 0; i < kProducers * kDocuments; ++i) {
    const std::string document = handOff_.take();
    const int producer = std::stoi(document);
    EXPECT_EQ(document, std::to_string(producer) + " " + std::to_string(next[producer]++));
    handOff_.release();
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(kProducers));
}

thread_local bool announcesItsWait = false;
HANDLE announced = nullptr;
decltype(&WaitForMultipleObjects) systemWait = nullptr;

/// In place of a thread's wait for its turn, when it is to be known that it waits: Wine signals and
/// begins to wait in one step.
DWORD WINAPI announcedWait(DWORD count, const HANDLE* objects, BOOL all, DWORD milliseconds) {
  if (!std::exchange(announcesItsWait, false)) {
    return systemWait(count, objects, all, milliseconds);
  }
  const HANDLE turn = objects[1];
  const DWORD waited = SignalObjectAndWait(announced, turn, INFINITE, FALSE);
  return waited == WAIT_OBJECT_0 ? WAIT_OBJECT_0 + 1 : WAIT_FAILED;
}

TEST_F(DocumentHandOffTest, AProducerThatWaitsIsServedBeforeAnotherOneIsServedTwice) {
  const win::Handle waits(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  announced = waits.get();
  const test_support::PatchedImport<decltype(WaitForMultipleObjects)> patched(
      "WaitForMultipleObjects", &announcedWait);
  systemWait = patched.original();
  std::thread flooding([this] {
    while (handOff_.put("flood", cancelled_.get())) {
    }
  });
  std::thread modest([this] {
    do {
      announcesItsWait = true;
    } while (handOff_.put("modest", cancelled_.get()));
  });
  int served = 0;
  for (int round = 0; round < 200; ++round) {
    EXPECT_EQ(WaitForSingleObject(waits.get(), 60'000), WAIT_OBJECT_0);
    bool isServed = false;
    for (int turn = 0; turn < 2 && !isServed; ++turn) {
      isServed = handOff_.take() == "modest";
      handOff_.release();
    }
    if (!isServed) {
      break;
    }
    ++served;
  }
  EXPECT_EQ(served, 200);
  SetEvent(cancelled_.get());
  flooding.join();
  modest.join();
}

} // namespace
