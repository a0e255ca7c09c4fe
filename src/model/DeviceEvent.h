#pragma once

#include "model/InstanceList.h"

#include <string>

/// One event of the device server, as the XML adapters read it. Everything is empty at first.
struct DeviceEvent {
  std::string deviceId;
  /// "addInstance", "modifyInstance" or "delInstance"; "NA" when it is not to be published.
  std::string type;
  /// The short device class ("Scanner"), or "NA".
  std::string className;
  std::string modifyInstanceCode;
  /// Filled by the proxy strategy only, like `fields`: the class the device is published under.
  std::string provider;
  Instance fields;
};
