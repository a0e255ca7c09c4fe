#pragma once

#include <cstdint>

namespace com::orvex {

class CommunicationLayer;
class IUPOSXmlAdapter;

/// Creates the parts of the selected strategy; the caller owns them. Threads: any; stateless.
/// Errors: std::bad_alloc.
class StrategyFactory {
public:
  virtual ~StrategyFactory() = default;
  virtual IUPOSXmlAdapter* createXmlAdapter() = 0;
  virtual CommunicationLayer* createCommunicationLayer() = 0;
};

/// Selects the strategy: 0 adapter (the default), 1 proxy. Has no effect once the factory exists.
void setStrategy(std::uint32_t kind);

/// The process's factory: created on first use, never destroyed. Null for an unknown kind or out of
/// memory.
StrategyFactory* getStrategyFactory();

} // namespace com::orvex
