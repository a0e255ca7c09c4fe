#pragma once

#include <map>
#include <string>
#include <string_view>

/// The device classes of quillmon.mof. Names are compared without regard to case, as WMI does.
namespace till {

std::string lowered(std::string_view text);

/// The types ("string", "uint32", "boolean") of all properties of a class, by their names in lower
/// case.
using PropertyTypeTable = std::map<std::string, std::string_view>;

/// Null for what is no class of devices.
const PropertyTypeTable* propertiesOf(std::string_view className);

} // namespace till
