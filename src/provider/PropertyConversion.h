#pragma once

#include "provider/PropertyTypes.h"
#include "win/Automation.h"

#include <string_view>

namespace provider {

/// The VARIANT of a property: `text`, a field's text in the thread's ANSI code page, converted to
/// the VARIANT type of the property. `value` is empty before. A text that does not convert leaves
/// `value` as VariantChangeType leaves the text's BSTR. Throws as bstrInThreadCodePage does.
void readProperty(PropertyType type, std::string_view text, win::Variant& value);

} // namespace provider
