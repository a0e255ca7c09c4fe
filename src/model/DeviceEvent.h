#pragma once

#include "model/InstanceList.h"

#include <string>

namespace model {

/// One event of the device server, as read by an XML adapter.
struct DeviceEvent {
  std::string deviceId;
  /// "addInstance", "modifyInstance" or "delInstance"; "NA": not to be published.
  std::string type;
  /// The short device class ("Scanner"), or "NA".
  std::string className;
  std::string modifyInstanceCode;
  /// The WMI class under which the device is published. Like `fields`, set by the proxy strategy
  /// only.
  std::string provider;
  Fields fields;
};

} // namespace model
