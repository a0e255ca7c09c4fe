#pragma once

#include "provider/PropertyTypes.h"

#include <string>
#include <string_view>

/// What of the service's way from texts to WMI values depends on the platform. On Windows it is the
/// service's own conversion; the native build takes plain numbers and truth values only, where
/// Windows also takes "1e3", " 7" and what else the user's settings allow.
namespace till {

struct ConvertedValue {
  std::string_view type; ///< of the properties that it fits: "string", "uint32", "boolean"
  bool isNegative = false;
};

/// The value of a field, in the local code page, converted as the type asks.
ConvertedValue convertAsService(provider::PropertyType type, const std::string& value);

/// "1252"; natively "UTF-8".
std::string localCodePage();

} // namespace till
