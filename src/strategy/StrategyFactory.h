#pragma once

#include <cstdint>

namespace com::orvex {

class CommunicationLayer;
class IUPOSXmlAdapter;

/// Makes the parts of the chosen strategy; what it makes belongs to the caller. Stateless, so any
/// thread may use it. The slot order is fixed.
class StrategyFactory {
public:
  virtual ~StrategyFactory() = default;
  virtual IUPOSXmlAdapter* createXmlAdapter() = 0;
  virtual CommunicationLayer* createCommunicationLayer() = 0;
};

/// 0: adapter (the default), 1: proxy. Called while the command line is read, before anything asks
/// for the factory; later calls change nothing.
void setStrategy(std::uint32_t kind);

/// The process's one factory, made on first use and never destroyed. Empty for an unknown kind or
/// without memory.
StrategyFactory* getStrategyFactory();

} // namespace com::orvex
