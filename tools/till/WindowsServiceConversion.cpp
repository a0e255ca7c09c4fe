#include "provider/PropertyConversion.h"
#include "till/ServiceConversion.h"
#include "win/Automation.h"

namespace till {
namespace {

struct TypeTable : provider::PropertyTypes {
  TypeTable() { fill(); }
};

provider::PropertyType typeOf(const std::string& word) {
  static TypeTable table;
  return table.typeOf(word);
}

} // namespace

ConvertedValue convertAsService(const std::string& typeWord, const std::string& value) {
  win::Variant variant;
  provider::readProperty(typeOf(typeWord), value, variant);
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
