#include "trace/TimeStamp.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace trace {

std::string timeStamp(const std::tm& local) {
  std::array<char, 80> text{};
  const int length =
      std::snprintf(text.data(), text.size(), "%02d/%02d/%04d %02d:%02d:%02d ", local.tm_mon + 1,
                    local.tm_mday, local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
  return {text.data(), static_cast<std::size_t>(std::max(length, 0))};
}

} // namespace trace
