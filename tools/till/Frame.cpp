#include "till/Frame.h"

#include <algorithm>
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

std::vector<std::string> RequestScanner::feed(std::string_view bytes) {
  std::vector<std::string> documents;
  // Of what was pending only a beginning of the end tag is searched again.
  std::size_t from = pending_.size() - std::min(pending_.size(), kEndTag.size() - 1);
  pending_ += bytes;
  std::size_t begin = 0;
  for (;;) {
    const std::size_t end = pending_.find(kEndTag, from);
    begin = std::min(pending_.find_first_not_of(" \t\r\n", begin), pending_.size());
    if (end == std::string::npos) {
      break;
    }
    from = end + kEndTag.size();
    documents.push_back(pending_.substr(begin, from - begin));
    begin = from;
  }
  pending_.erase(0, begin);
  return documents;
}

} // namespace till
