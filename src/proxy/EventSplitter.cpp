#include "proxy/EventSplitter.h"

#include <algorithm>
#include <utility>

namespace proxy {

namespace {

/// Length of the longest suffix of `text` that is a proper prefix of the start marker.
std::size_t heldBackLength(std::string_view text) noexcept {
  std::size_t length = std::min(text.size(), EventSplitter::kStartMarker.size() - 1);
  while (!text.ends_with(EventSplitter::kStartMarker.substr(0, length))) {
    --length; // terminates at 0: every text ends with the empty text
  }
  return length;
}

} // namespace

std::vector<std::string> EventSplitter::split(std::string_view received) {
  const std::string text = heldBack_.append(received);
  const std::size_t whole = text.size() - heldBackLength(text);
  heldBack_ = text.substr(whole);
  return splitText(std::string_view(text).substr(0, whole));
}

std::vector<std::string> EventSplitter::splitText(std::string_view text) {
  std::vector<std::string> documents;
  const std::size_t start = text.find(kStartMarker);
  if (start == std::string_view::npos) {
    // Only the end of the pending text can hold the beginning of an end marker.
    const std::size_t searched = pending_.size() - std::min(pending_.size(), kEndMarker.size() - 1);
    pending_.append(text);
    if (pending_.find(kEndMarker, searched) != std::string::npos) {
      documents.push_back(std::exchange(pending_, {}));
    }
    return documents;
  }
  pending_.append(text.substr(0, start));
  text.remove_prefix(start);
  if (!pending_.empty()) {
    documents.push_back(std::exchange(pending_, {}));
  }
  for (std::size_t end; (end = text.find(kEndMarker)) != std::string_view::npos;) {
    end += kEndMarker.size();
    documents.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  pending_ = text;
  return documents;
}

} // namespace proxy
