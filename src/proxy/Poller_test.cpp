#include "RecordedTrace.h"
#include "proxy/Poller.h"
#include "win/testing/FakeConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

using com::orvex::Poller;
using testing::ElementsAre;

namespace {

constexpr std::int64_t kNow = 1'700'000'000;

class ClockedPoller : public Poller {
public:
  explicit ClockedPoller(std::int32_t minutes, std::int64_t start = kNow)
      : Poller(minutes, start), time(start) {}
  std::int64_t currentTime() override { return time; }

  std::int64_t time;
};

TEST(Poller, IsDueOneFullPeriodAfterConstruction) {
  ClockedPoller poller(2);
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kNow + 119;
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kNow + 120;
  EXPECT_TRUE(poller.isPollingTime());
}

TEST(Poller, ATrueAnswerBeginsTheNextPeriod) {
  ClockedPoller poller(1);
  poller.time = kNow + 1000;
  EXPECT_TRUE(poller.isPollingTime());
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kNow + 1059;
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kNow + 1060;
  EXPECT_TRUE(poller.isPollingTime());
}

TEST(Poller, AFalseAnswerChangesNothing) {
  ClockedPoller poller(1);
  poller.time = kNow + 59;
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kNow + 60;
  EXPECT_TRUE(poller.isPollingTime());
}

TEST(Poller, AFrequencyOfZeroOrLessIsAlwaysDue) {
  for (const std::int32_t minutes : {0, -1, -60}) {
    ClockedPoller poller(minutes);
    EXPECT_TRUE(poller.isPollingTime());
    EXPECT_TRUE(poller.isPollingTime());
  }
}

TEST(Poller, AClockSetBackIsNotDue) {
  ClockedPoller poller(1);
  poller.time = kNow - 1'000'000;
  EXPECT_FALSE(poller.isPollingTime());
}

TEST(Poller, ThePeriodWrapsIn32Bits) {
  ClockedPoller negative(71'582'788); // 4294967280 seconds: -16
  EXPECT_TRUE(negative.isPollingTime());
  ClockedPoller small(71'582'789); // 4294967340 seconds: 44
  small.time = kNow + 43;
  EXPECT_FALSE(small.isPollingTime());
  small.time = kNow + 44;
  EXPECT_TRUE(small.isPollingTime());
}

TEST(Poller, TheTimeIsTruncatedTo32Bits) {
  constexpr std::int64_t kEnd = 2'147'483'647; // in January 2038
  ClockedPoller poller(1, kEnd - 60);
  poller.time = kEnd + 1;
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kEnd + 10'000'000;
  EXPECT_FALSE(poller.isPollingTime());
  poller.time = kEnd;
  EXPECT_TRUE(poller.isPollingTime());
  poller.time = (std::int64_t{1} << 32) + kEnd;
  EXPECT_FALSE(poller.isPollingTime());
}

TEST(PollerThreads, OfConcurrentCallsAtLeastOneIsTrue) {
  ClockedPoller poller(1);
  poller.time = kNow + 60;
  std::atomic<int> told = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] { told += poller.isPollingTime() ? 1 : 0; });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GE(told, 1);
  EXPECT_FALSE(poller.isPollingTime());
}

TEST(Poller, ReadsItsFrequencyAndTracesIt) {
  fake_configuration::clear();
  recorded_trace::clear();
  const Poller byDefault;
  fake_configuration::set("provider.dataUpdate.frequency", "5");
  const Poller configured;
  fake_configuration::set("provider.dataUpdate.frequency", "-3");
  Poller always;
  EXPECT_TRUE(always.isPollingTime());
  fake_configuration::clear();
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("Polling time set to 60", "Polling time set to 5", "Polling time set to -3"));
}

TEST(Poller, KeepsCalendarTime) {
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  Poller poller;
  const auto before = now();
  const auto time = poller.currentTime();
  EXPECT_GE(time, before);
  EXPECT_LE(time, now());
}

TEST(Poller, IsOneForTheProcess) {
  EXPECT_EQ(&Poller::instance(), &Poller::instance());
}

} // namespace
