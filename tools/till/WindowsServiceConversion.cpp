#include "provider/PropertyConversion.h"
#include "till/ServiceConversion.h"
#include "win/Automation.h"

namespace till {

ConvertedValue convertAsService(provider::PropertyType type, const std::string& value) {
  win::Variant variant;
  provider::readProperty(type, value, variant);
  switch (variant.value().vt) {
  case VT_I4:
    return {"uint32", variant.value().lVal < 0};
  case VT_BOOL:
    return {"boolean"};
  default:
    return {"string"};
  }
}

std::string localCodePage() {
  return std::to_string(GetACP());
}

} // namespace till
