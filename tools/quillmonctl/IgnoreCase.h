#pragma once

#include <algorithm>
#include <string_view>

namespace ctl {

/// ASCII only.
inline char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Names of keys, sections and classes are compared without regard to (ASCII) case.
inline bool equalsIgnoreCase(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [&](char a, char b) { return lower(a) == lower(b); });
}

} // namespace ctl
