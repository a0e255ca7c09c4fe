#pragma once

#include "strategy/StrategyFactory.h"

namespace com::orvex {

/// The proxy strategy: device servers connect to the event socket server and keep the device cache
/// current with their events; WMI requests are answered from the cache. Defined beside the
/// factory's creation, the one place that knows the concrete classes.
class ProxyImpStrategyFactory : public StrategyFactory {
public:
  IUPOSXmlAdapter* createXmlAdapter() override;
  CommunicationLayer* createCommunicationLayer() override;
};

} // namespace com::orvex
