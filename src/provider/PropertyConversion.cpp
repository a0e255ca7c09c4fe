#include "provider/PropertyConversion.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace provider {

namespace {

/// Reads one to nine digits, which are the same number in every locale. Faster than the platform,
/// which looks the locale up.
std::optional<LONG> plainNumber(std::wstring_view text) noexcept {
  const auto isDigit = [](wchar_t each) { return each >= L'0' && each <= L'9'; };
  if (text.empty() || text.size() > 9 || !std::all_of(text.begin(), text.end(), isDigit)) {
    return std::nullopt;
  }
  LONG number = 0;
  for (const wchar_t digit : text) {
    number = number * 10 + (digit - L'0');
  }
  return number;
}

} // namespace

void convertProperty(PropertyType type, win::Variant& value) noexcept {
  VARTYPE target = VT_EMPTY;
  switch (type) {
  case kString:
  case kDatetime: // CIM date-times are strings
    target = VT_BSTR;
    break;
  case kUint32:
  case kUint64: // by design a signed 32-bit number as well; a larger value stays text
    target = VT_I4;
    break;
  case kBoolean:
    target = VT_BOOL;
    break;
  case kArrayInt32:
  case kEnd:
  case kNoType:
    return; // stays text
  }
  if (value.value().vt == target) {
    return; // VariantChangeType would copy the text three times
  }
  if (target == VT_I4) {
    const BSTR text = value.value().bstrVal;
    if (const auto number = plainNumber({text, SysStringLen(text)})) {
      VariantClear(value.get());
      value.get()->vt = VT_I4;
      value.get()->lVal = *number;
      return;
    }
  }
  // By design unchecked: a value that does not convert is put unchanged.
  VariantChangeType(value.get(), value.get(), 0, target);
}

} // namespace provider
