#pragma once

#include "model/DeviceEvent.h"
#include "proxy/CIMContainer.h"

/// How device events change the cache.
///
/// Threads: one at a time, the event thread; readers of the container need not wait for it.
class CIMDeviceUtil {
public:
  /// Applies `event` to the container and returns it. Its type has become "NA" when it is not to be
  /// published: a further add of a known device, a modification without a code (empty or one
  /// blank), a modification or deletion of an unknown device, a deletion that leaves the device
  /// listed under another class. An event of any other type changes nothing.
  static DeviceEvent processEvent(DeviceEvent event,
                                  CIMContainer& container = CIMContainer::getInstance());
};
