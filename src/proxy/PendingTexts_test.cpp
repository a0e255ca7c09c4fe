#include "proxy/PendingTexts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

using proxy::PendingTexts;

namespace {

struct Client {
  explicit Client(PendingTexts& all) : held(all, [this] { ++told; }) {}

  std::atomic<int> told = 0;
  PendingTexts::Connection held;
};

class PendingTextsTest : public testing::Test {
protected:
  PendingTexts texts_{{.perConnection = 60, .total = 100}};
};

TEST(PendingTexts, NoDocumentOfATillComesNearTheLimits) {
  const PendingTexts all;
  EXPECT_EQ(all.limits().perConnection, 64U * 1024 * 1024);
  EXPECT_EQ(all.limits().total, 256U * 1024 * 1024);
}

TEST_F(PendingTextsTest, WithinTheLimitNoneIsDropped) {
  Client one(texts_);
  Client two(texts_);
  EXPECT_TRUE(one.held.hold(60));
  EXPECT_TRUE(two.held.hold(40));
  EXPECT_TRUE(two.held.hold(40));
  EXPECT_TRUE(one.held.hold(10));
  EXPECT_TRUE(two.held.hold(90));
  EXPECT_EQ(one.told + two.told, 0);
}

TEST_F(PendingTextsTest, BeyondTheLimitTheLargestIsDroppedOnce) {
  Client most(texts_);
  Client growing(texts_);
  Client other(texts_);
  EXPECT_TRUE(most.held.hold(50));
  EXPECT_TRUE(other.held.hold(20));
  EXPECT_TRUE(growing.held.hold(30));
  EXPECT_TRUE(growing.held.hold(31));
  EXPECT_EQ(most.told, 1);
  EXPECT_TRUE(most.held.isDropped());
  EXPECT_FALSE(most.held.hold(51)); // no longer counted
  EXPECT_TRUE(growing.held.hold(80));
  EXPECT_FALSE(growing.held.hold(81));
  EXPECT_EQ(growing.told, 1);
  EXPECT_EQ(most.told, 1);
  EXPECT_TRUE(other.held.hold(100));
}

TEST_F(PendingTextsTest, ConnectionsThatHaveDeliveredAreDroppedLast) {
  Client known(texts_);
  Client first(texts_);
  Client second(texts_);
  known.held.markDelivered();
  EXPECT_TRUE(known.held.hold(60));
  EXPECT_TRUE(first.held.hold(30));
  EXPECT_TRUE(second.held.hold(9));
  EXPECT_TRUE(known.held.hold(62));
  EXPECT_TRUE(first.held.isDropped());
  EXPECT_FALSE(second.held.isDropped());
  EXPECT_TRUE(known.held.hold(100));
  EXPECT_TRUE(second.held.isDropped());
  EXPECT_FALSE(known.held.hold(101));
}

TEST_F(PendingTextsTest, AsManyAreDroppedAsNecessary) {
  std::deque<Client> crowd;
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(crowd.emplace_back(texts_).held.hold(1));
  }
  Client known(texts_);
  known.held.markDelivered();
  EXPECT_TRUE(known.held.hold(90));
  int dropped = 0;
  for (const Client& client : crowd) {
    dropped += client.told;
  }
  EXPECT_EQ(dropped, 30);
}

TEST_F(PendingTextsTest, IdleConnectionsAreNeverDropped) {
  std::deque<Client> idle;
  for (int i = 0; i < 300; ++i) {
    EXPECT_TRUE(idle.emplace_back(texts_).held.hold(0));
  }
  Client known(texts_);
  known.held.markDelivered();
  EXPECT_TRUE(known.held.hold(100));
  EXPECT_FALSE(known.held.hold(101));
  for (const Client& client : idle) {
    EXPECT_EQ(client.told, 0);
  }
}

TEST_F(PendingTextsTest, AClosedConnectionHoldsNothing) {
  Client one(texts_);
  {
    Client gone(texts_);
    EXPECT_TRUE(gone.held.hold(100));
  }
  EXPECT_TRUE(one.held.hold(100));
  EXPECT_EQ(one.told, 0);
}

TEST_F(PendingTextsTest, ConnectionsMayUseTheirOwnThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      for (int round = 0; round < 200; ++round) {
        Client client(texts_);
        std::size_t bytes = 0;
        while (bytes < 90 && client.held.hold(bytes)) {
          bytes += 7;
          client.held.markDelivered();
        }
        ASSERT_EQ(client.held.isDropped(), client.told == 1);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Client last(texts_);
  EXPECT_TRUE(last.held.hold(100)); // the others hold nothing
}

} // namespace
