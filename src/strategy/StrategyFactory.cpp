#include "strategy/StrategyFactory.h"

#include "adapter/AdapterImpCommunicationLayer.h"
#include "adapter/UPOSXMLAdapter.h"
#include "proxy/ProxyImpCommunicationLayer.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "strategy/AdapterImpStrategyFactory.h"
#include "strategy/ProxyImpStrategyFactory.h"

#include <atomic>
#include <mutex>
#include <new>

namespace com::orvex {

namespace {

constexpr std::uint32_t kAdapterStrategy = 0;
constexpr std::uint32_t kProxyStrategy = 1;

constinit std::atomic<std::uint32_t> strategyKind = kAdapterStrategy;
std::mutex creating; // guards instance
constinit StrategyFactory* instance = nullptr;

StrategyFactory* createFactory(std::uint32_t kind) noexcept {
  switch (kind) {
  case kAdapterStrategy:
    return new (std::nothrow) AdapterImpStrategyFactory;
  case kProxyStrategy:
    return new (std::nothrow) ProxyImpStrategyFactory;
  default:
    return nullptr;
  }
}

} // namespace

void setStrategy(std::uint32_t kind) {
  strategyKind = kind;
}

StrategyFactory* getStrategyFactory() {
  std::scoped_lock lock(creating);
  if (instance == nullptr) {
    instance = createFactory(strategyKind);
  }
  return instance;
}

IUPOSXmlAdapter* AdapterImpStrategyFactory::createXmlAdapter() {
  return new UPOSXMLAdapter;
}

CommunicationLayer* AdapterImpStrategyFactory::createCommunicationLayer() {
  return new AdapterImpCommunicationLayer;
}

IUPOSXmlAdapter* ProxyImpStrategyFactory::createXmlAdapter() {
  return new ProxyImpXmlAdapter;
}

CommunicationLayer* ProxyImpStrategyFactory::createCommunicationLayer() {
  return new ProxyImpCommunicationLayer;
}

} // namespace com::orvex
