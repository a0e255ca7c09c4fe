#include "quillmonctl/ConfigKeys.h"

#include "quillmonctl/IgnoreCase.h"
#include "win/Configuration.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace ctl {
namespace {

constexpr const char* kAtStart = "the next start of the service";

/// The whole text as a decimal number without a sign.
bool parseNumber(std::string_view text, unsigned& number) {
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  return problem == std::errc() && end == text.data() + text.size();
}

bool isAddress(std::string_view text) {
  for (int part = 0; part < 4; ++part) {
    const std::size_t end = part < 3 ? text.find('.') : text.size();
    unsigned number = 0;
    if (end == std::string_view::npos || end == 0 || end > 3 ||
        !parseNumber(text.substr(0, end), number) || number > 255 || (end > 1 && text[0] == '0')) {
      return false;
    }
    text.remove_prefix(part < 3 ? end + 1 : end);
  }
  return true;
}

} // namespace

const std::vector<ConfigKey>& configKeys() {
  using Kind = ConfigKey::Kind;
  static const std::vector<ConfigKey> keys = {
      {"provider.maxQueryThreads", Kind::Number, "1", 1, 1000, "", "WMI requests served at once",
       kAtStart},
      {configuration::kEventPortKey, Kind::Number, std::to_string(configuration::kDefaultEventPort),
       1, 65535, "", "port that device events come to", kAtStart},
      {"provider.eventSocket.IP", Kind::Address, "127.0.0.1", 0, 0, "",
       "address of the proxy strategy's event server", kAtStart},
      {"provider.dataUpdate.frequency", Kind::Number, "60", 0, 10080, "minutes",
       "between updates in the proxy strategy", kAtStart},
      {"upos.requestSocket.Port", Kind::Number, std::to_string(configuration::kDefaultRequestPort),
       1, 65535, "", "the device server's port for requests", "the next request"},
      {"upos.requestSocket.retryTimeout", Kind::Number,
       std::to_string(configuration::kDefaultRetryTimeout), 0, 3600000, "milliseconds",
       "without a new attempt after a failed connect", kAtStart},
  };
  return keys;
}

const ConfigKey* findConfigKey(std::string_view name) {
  const std::vector<ConfigKey>& keys = configKeys();
  const auto found = std::find_if(keys.begin(), keys.end(), [&](const ConfigKey& key) {
    return equalsIgnoreCase(key.name, name);
  });
  return found != keys.end() ? &*found : nullptr;
}

std::string validationError(const ConfigKey& key, std::string_view value) {
  if (key.kind == ConfigKey::Kind::Address) {
    return isAddress(value) ? "" : "must be an IPv4 address such as 127.0.0.1";
  }
  unsigned number = 0;
  if (!parseNumber(value, number) || number < key.minimum || number > key.maximum) {
    return fmt::format("must be a number from {} to {}", key.minimum, key.maximum);
  }
  return "";
}

} // namespace ctl
