#include "proxy/DocumentHandOff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <string>
#include <thread>
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

TEST_F(DocumentHandOffTest, AProducerWithManyDocumentsTakesTurnsWithTheOthers) {
  constexpr int kDocuments = 200;
  std::atomic<bool> done = false;
  std::thread flooding([&] {
    while (!done) {
      handOff_.put("flood", cancelled_.get());
    }
  });
  EXPECT_EQ(handOff_.take(), "flood");
  handOff_.release();
  std::thread modest([this] {
    for (int i = 0; i < kDocuments; ++i) {
      handOff_.put("modest", cancelled_.get());
    }
  });
  int floods = 0;
  for (int modests = 0; modests < kDocuments;) {
    (handOff_.take() == "flood" ? floods : modests) += 1;
    handOff_.release();
  }
  done = true;
  SetEvent(cancelled_.get());
  modest.join();
  flooding.join();
  EXPECT_LT(floods, 2 * kDocuments);
}

} // namespace
