#pragma once

#include "strategy/StrategyFactory.h"

namespace com::orvex {

/// The adapter strategy: one request over the device server's request socket per WMI request,
/// events as datagrams. Defined beside the factory's creation, the one place that knows the
/// concrete classes.
class AdapterImpStrategyFactory : public StrategyFactory {
public:
  IUPOSXmlAdapter* createXmlAdapter() override;
  CommunicationLayer* createCommunicationLayer() override;
};

} // namespace com::orvex
