#include "StartSignal.h"
#include "adapter/AdapterImpCommunicationLayer.h"
#include "adapter/UPOSXMLAdapter.h"
#include "strategy/AdapterImpStrategyFactory.h"
#include "strategy/StrategyFactory.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
#include <vector>

using com::orvex::getStrategyFactory;
using com::orvex::setStrategy;
using com::orvex::StrategyFactory;
using test_support::StartSignal;

namespace {

// The factory is process-wide and permanent. In one process the tests run in this order; each also
// passes in its own process.

TEST(StrategyFactory, AnUnknownKindGivesNullUntilAFactoryExists) {
  setStrategy(2);
  EXPECT_EQ(getStrategyFactory(), nullptr);
  EXPECT_EQ(getStrategyFactory(), nullptr);
  setStrategy(0);
  StrategyFactory* const factory = getStrategyFactory();
  EXPECT_NE(factory, nullptr);
  setStrategy(2);
  EXPECT_EQ(getStrategyFactory(), factory);
  setStrategy(0);
}

TEST(StrategyFactory, ConcurrentCallsGiveTheSame) {
  StartSignal start;
  std::vector<StrategyFactory*> got(8);
  std::vector<std::thread> threads;
  for (StrategyFactory*& mine : got) {
    threads.emplace_back([&start, &mine] {
      start.wait();
      mine = getStrategyFactory();
    });
  }
  start.give();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(std::set<StrategyFactory*>(got.begin(), got.end()).size(), 1U);
  EXPECT_NE(got.front(), nullptr);
}

TEST(StrategyFactory, TheAdapterStrategyIsTheDefault) {
  EXPECT_NE(dynamic_cast<com::orvex::AdapterImpStrategyFactory*>(getStrategyFactory()), nullptr);
}

TEST(StrategyFactory, RepeatedCallsGiveTheSame) {
  StrategyFactory* const first = getStrategyFactory();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(getStrategyFactory(), first);
}

TEST(StrategyFactory, SettingTheStrategyLaterHasNoEffect) {
  StrategyFactory* const first = getStrategyFactory();
  setStrategy(1);
  EXPECT_EQ(getStrategyFactory(), first);
  setStrategy(0);
}

TEST(StrategyFactory, CreatesThePartsOfTheAdapterStrategy) {
  StrategyFactory* const factory = getStrategyFactory();
  ASSERT_NE(factory, nullptr);
  const std::unique_ptr<com::orvex::IUPOSXmlAdapter> xml(factory->createXmlAdapter());
  EXPECT_NE(dynamic_cast<UPOSXMLAdapter*>(xml.get()), nullptr);
  const std::unique_ptr<com::orvex::IUPOSXmlAdapter> another(factory->createXmlAdapter());
  EXPECT_NE(another, xml);
  const std::unique_ptr<com::orvex::CommunicationLayer> layer(factory->createCommunicationLayer());
  EXPECT_NE(dynamic_cast<com::orvex::AdapterImpCommunicationLayer*>(layer.get()), nullptr);
}

} // namespace
