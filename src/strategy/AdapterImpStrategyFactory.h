#pragma once

#include "strategy/StrategyFactory.h"

namespace com::orvex {

/// The adapter strategy: one exchange with the device server per WMI request, events as datagrams.
/// Defined in StrategyFactory.cpp, the only source that knows the concrete classes.
class AdapterImpStrategyFactory : public StrategyFactory {
public:
  IUPOSXmlAdapter* createXmlAdapter() override;
  CommunicationLayer* createCommunicationLayer() override;
};

} // namespace com::orvex
