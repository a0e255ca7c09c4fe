#pragma once

#include "provider/PropertyTypes.h"
#include "win/Automation.h"

namespace provider {

/// Converts `value`, a field's text, in place to the VARIANT type of the property. A text that does
/// not convert leaves `value` as VariantChangeType leaves it.
void convertProperty(PropertyType type, win::Variant& value) noexcept;

} // namespace provider
