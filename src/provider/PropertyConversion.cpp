#include "provider/PropertyConversion.h"

#include <algorithm>

namespace provider {

namespace {

VARTYPE targetOf(PropertyType type) noexcept {
  switch (type) {
  case kUint32:
  case kUint64: // by design a signed 32-bit number as well; a larger value stays text
    return VT_I4;
  case kBoolean:
    return VT_BOOL;
  case kString:
  case kDatetime: // CIM date-times are strings
  case kArrayInt32:
  case kEnd:
  case kNoType:
    break; // stays text
  }
  return VT_BSTR;
}

/// Reads what VariantChangeType reads alike in every locale: one to nine digits, and the protocol's
/// two spellings of a boolean. The platform looks the locale up each time. Returns false, and
/// changes nothing, for any other text.
bool readPlain(VARTYPE target, std::string_view text, VARIANT& value) noexcept {
  const auto isDigit = [](char each) { return each >= '0' && each <= '9'; };
  if (target == VT_I4 && !text.empty() && text.size() <= 9 &&
      std::all_of(text.begin(), text.end(), isDigit)) {
    LONG number = 0;
    for (const char digit : text) {
      number = number * 10 + (digit - '0');
    }
    value.lVal = number;
  } else if (target == VT_BOOL && (text == "true" || text == "false")) {
    value.boolVal = text == "true" ? VARIANT_TRUE : VARIANT_FALSE;
  } else {
    return false;
  }
  value.vt = target;
  return true;
}

} // namespace

void readProperty(PropertyType type, std::string_view text, win::Variant& value) {
  const VARTYPE target = targetOf(type);
  if (readPlain(target, text, *value.get())) {
    return;
  }
  value.get()->bstrVal = win::bstrInThreadCodePage(text).release();
  value.get()->vt = VT_BSTR;
  if (target != VT_BSTR) { // VariantChangeType would copy the text three times
    // By design unchecked: a value that does not convert is put unchanged.
    VariantChangeType(value.get(), value.get(), 0, target);
  }
}

} // namespace provider
