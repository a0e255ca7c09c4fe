#include "cache/EventSplitter.h"

#include <algorithm>
#include <utility>

std::size_t EventSplitter::begunStartMarker(std::string_view received) noexcept {
  std::size_t begun = std::min(received.size(), kStartMarker.size() - 1);
  while (!received.ends_with(kStartMarker.substr(0, begun))) {
    --begun; // ends at 0: everything ends with the empty text
  }
  return begun;
}

std::vector<std::string> EventSplitter::split(std::string_view received) {
  std::vector<std::string> documents;
  const std::size_t start = received.find(kStartMarker);
  if (start == std::string_view::npos) {
    // Of what was pending only a beginning of the end marker is searched again.
    const std::size_t searched = pending_.size() - std::min(pending_.size(), kEndMarker.size() - 1);
    pending_.append(received);
    if (pending_.find(kEndMarker, searched) != std::string::npos) {
      documents.push_back(std::exchange(pending_, {}));
    }
    return documents;
  }
  pending_.append(received.substr(0, start));
  received.remove_prefix(start);
  if (!pending_.empty()) {
    documents.push_back(std::exchange(pending_, {}));
  }
  for (std::size_t end; (end = received.find(kEndMarker)) != std::string_view::npos;) {
    end += kEndMarker.size();
    documents.emplace_back(received.substr(0, end));
    received.remove_prefix(end);
  }
  pending_ = received;
  return documents;
}
