#pragma once

#include "strategy/StrategyFactory.h"

namespace com::orvex {

/// The proxy strategy: device servers connect to the event socket server and update the device
/// cache with their events; WMI requests are answered from the cache. Defined in
/// StrategyFactory.cpp, the only source that knows the concrete classes.
class ProxyImpStrategyFactory : public StrategyFactory {
public:
  IUPOSXmlAdapter* createXmlAdapter() override;
  CommunicationLayer* createCommunicationLayer() override;
};

} // namespace com::orvex
