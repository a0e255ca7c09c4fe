#pragma once

#include "provider/PropertyTypes.h"
#include "win/Automation.h"

namespace provider {

/// Converts `value`, which holds a field's text, in place to what WMI is given for the type. A text
/// that does not convert leaves in `value` whatever the platform leaves there.
void convertProperty(PropertyType type, win::Variant& value) noexcept;

} // namespace provider
