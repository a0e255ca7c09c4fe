#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace ctl {

/// Members keep the order in which they were put.
using Json = nlohmann::ordered_json;

/// Indented, with a line end; what is not UTF-8 is replaced, never refused.
inline std::string dump(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// One line, for streams of objects.
inline std::string dumpLine(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace ctl
