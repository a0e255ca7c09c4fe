#pragma once

#include "model/DeviceEvent.h"
#include "proxy/CIMContainer.h"

namespace proxy {

/// Applies device events to the cache.
///
/// Threads: the event thread only; does not block readers of the container.
class CIMDeviceUtil {
public:
  /// Applies `event` to the container and returns it. Its type becomes "NA" if it is not to be
  /// published: an add of a known device; a modification without a code (empty or one blank); a
  /// modification or deletion of an unknown device; a deletion after which the device
  /// still has a listing. An event of another type changes nothing.
  static model::DeviceEvent processEvent(model::DeviceEvent event,
                                         CIMContainer& container = CIMContainer::getInstance());
};

} // namespace proxy
