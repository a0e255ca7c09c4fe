#include "device_server/Frame.h"

#include <utility>

namespace till {

std::string frame(std::string_view message) {
  std::string result;
  result.reserve(message.size() + 2);
  result += kStartMark;
  result += message;
  result += kEndMark;
  return result;
}

std::optional<std::string> FrameScanner::feed(std::string_view bytes) {
  fed_ += bytes.size();
  if (!started_) {
    const std::size_t start = bytes.find(kStartMark);
    if (start == std::string_view::npos) {
      return std::nullopt;
    }
    started_ = true;
    bytes.remove_prefix(start + 1);
  }
  const std::size_t end = bytes.find(kEndMark);
  message_ += bytes.substr(0, end);
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  return std::exchange(message_, {});
}

} // namespace till
