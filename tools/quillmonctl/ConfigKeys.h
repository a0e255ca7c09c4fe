#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// A key of the service's configuration file, and what a sensible value of it is. The service
/// itself takes anything; what lies outside makes it do something that nobody asks for.
struct ConfigKey {
  enum class Kind { Number, Address };
  const char* name;
  Kind kind;
  const char* defaultValue;
  int least;
  int most;
  const char* unit; ///< "", "minutes", "milliseconds"
  const char* meaning;
  const char* takesEffect; ///< when the service reads it
};

const std::vector<ConfigKey>& configKeys();

/// Null for an unknown key. Letter case does not count, as for the service.
const ConfigKey* findConfigKey(std::string_view name);

/// Why `value` is nonsense for that key; empty if it is not.
std::string nonsense(const ConfigKey& key, std::string_view value);

} // namespace ctl
