#include "proxy/ProxyImpCommunicationLayer.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "strategy/ProxyImpStrategyFactory.h"
#include "strategy/StrategyFactory.h"

#include <gtest/gtest.h>

#include <memory>

using com::orvex::getStrategyFactory;
using com::orvex::setStrategy;
using com::orvex::StrategyFactory;

namespace {

TEST(ProxyImpStrategyFactory, IsTheFactoryOfTheProxyStrategyPermanently) {
  setStrategy(1);
  StrategyFactory* const factory = getStrategyFactory();
  ASSERT_NE(dynamic_cast<com::orvex::ProxyImpStrategyFactory*>(factory), nullptr);
  EXPECT_EQ(getStrategyFactory(), factory);
  setStrategy(0);
  EXPECT_EQ(getStrategyFactory(), factory);
}

TEST(ProxyImpStrategyFactory, CreatesThePartsOfTheProxyStrategy) {
  com::orvex::ProxyImpStrategyFactory factory;
  const std::unique_ptr<com::orvex::IUPOSXmlAdapter> xml(factory.createXmlAdapter());
  EXPECT_NE(dynamic_cast<com::orvex::ProxyImpXmlAdapter*>(xml.get()), nullptr);
  const std::unique_ptr<com::orvex::IUPOSXmlAdapter> another(factory.createXmlAdapter());
  EXPECT_NE(another, xml);
  const std::unique_ptr<com::orvex::CommunicationLayer> layer(factory.createCommunicationLayer());
  EXPECT_NE(dynamic_cast<com::orvex::ProxyImpCommunicationLayer*>(layer.get()), nullptr);
}

} // namespace
