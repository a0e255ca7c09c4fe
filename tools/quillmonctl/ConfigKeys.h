#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// A key of the service's configuration file, and the range of its sensible values. The service
/// itself takes anything; what lies outside makes it do something that nobody asks for.
struct ConfigKey {
  enum class Kind { Number, Address };
  const char* name;
  Kind kind;
  std::string defaultValue;
  unsigned minimum;
  unsigned maximum;
  const char* unit; ///< "", "minutes", "milliseconds"
  const char* meaning;
  const char* takesEffect; ///< when the service reads it
};

const std::vector<ConfigKey>& configKeys();

/// Null for an unknown key. Letter case does not count, as for the service.
const ConfigKey* findConfigKey(std::string_view name);

/// Why `value` is invalid for the key; empty if it is valid.
std::string validationError(const ConfigKey& key, std::string_view value);

} // namespace ctl
