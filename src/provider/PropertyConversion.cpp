#include "provider/PropertyConversion.h"

namespace provider {

void convertProperty(PropertyType type, win::Variant& value) noexcept {
  VARTYPE target = VT_EMPTY;
  switch (type) {
  case kString:
  case kDatetime: // CIM date-times are strings
    target = VT_BSTR;
    break;
  case kUint32:
  case kUint64: // on purpose the same 32 bits with a sign: a larger number stays text
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
    return; // the platform would copy the text three times and change nothing
  }
  // Unchecked on purpose: what does not convert is put as it then is.
  VariantChangeType(value.get(), value.get(), 0, target);
}

} // namespace provider
