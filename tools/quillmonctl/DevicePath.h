#pragma once

#include <string>
#include <string_view>

namespace ctl {

/// The WMI class that is meant: "scanner" and "UPOS_Scanner" are the same; nothing is all devices.
std::string className(std::string_view text);

/// The WMI object path that is meant. A path is kept as it stands; "Scanner/SCANNER1" is a path
/// without the quotes that a prompt makes hard to type, "SCANNER1" one of the class of all devices.
std::string objectPath(std::string_view text);

/// True for "SCANNER1" alone: neither a class nor a path.
bool isDeviceId(std::string_view text);

/// The class of the MOF for a device's DeviceCategory, in whatever case; null where there is none.
const char* categoryClass(std::string_view category);

/// The class that an object path names.
std::string classOf(std::string_view path);

} // namespace ctl
