#include "till/ServiceConversion.h"

#include "quillmonctl/IgnoreCase.h"

#include <langinfo.h>

#include <charconv>
#include <cstdint>

namespace till {

ConvertedValue convertAsService(provider::PropertyType type, const std::string& value) {
  switch (type) {
  case provider::kUint32:
  case provider::kUint64: {
    std::int32_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, problem] = std::from_chars(value.data(), end, number);
    if (problem == std::errc() && stop == end) {
      return {"uint32", number < 0};
    }
    return {"string"};
  }
  case provider::kBoolean:
    if (ctl::equalsIgnoreCase(value, "true") || ctl::equalsIgnoreCase(value, "false")) {
      return {"boolean"};
    }
    return {"string"};
  default:
    return {"string"};
  }
}

std::string localCodePage() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the program has one thread that asks
  return nl_langinfo(CODESET);
}

} // namespace till
