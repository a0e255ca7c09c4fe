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
  /// The name of one listing of the device, by convention its WMI class; clients find the device
  /// by `className`. Like `fields`, set by the proxy strategy only.
  std::string provider;
  Fields fields;
};

} // namespace model
