#include "strategy/StrategyFactory.h"

#include "strategy/AdapterImpCommunicationLayer.h"
#include "strategy/AdapterImpStrategyFactory.h"
#include "xml/UPOSXMLAdapter.h"

#include <atomic>
#include <mutex>
#include <new>

namespace com::orvex {

namespace {

constexpr std::uint32_t kAdapterStrategy = 0;

constinit std::atomic<std::uint32_t> strategyKind = kAdapterStrategy;
std::mutex creating; // guards instance
constinit StrategyFactory* instance = nullptr;

StrategyFactory* createFactory(std::uint32_t kind) noexcept {
  switch (kind) {
  case kAdapterStrategy:
    return new (std::nothrow) AdapterImpStrategyFactory;
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

} // namespace com::orvex
