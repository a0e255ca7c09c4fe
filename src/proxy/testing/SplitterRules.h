#pragma once

#include "proxy/EventSplitter.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The splitter's rules word by word, however slow, for texts that end outside a start marker.
namespace proxy_testing {

class SplitterRules {
public:
  /// The documents that one received text completes.
  std::vector<std::string> split(std::string received) {
    std::vector<std::string> documents;
    const std::string start(proxy::EventSplitter::kStartMarker);
    const std::string end(proxy::EventSplitter::kEndMarker);
    const std::size_t position = received.find(start);
    if (position == std::string::npos) {
      pending += received;
      if (pending.find(end) != std::string::npos) {
        documents.push_back(pending);
        pending.clear();
      }
      return documents;
    }
    pending += received.substr(0, position);
    received.erase(0, position);
    if (!pending.empty()) {
      documents.push_back(pending);
      pending.clear();
    }
    std::size_t found = 0;
    while ((found = received.find(end)) != std::string::npos) {
      documents.push_back(received.substr(0, found + end.size()));
      received.erase(0, found + end.size());
    }
    pending += received;
    return documents;
  }

  std::string pending;
};

/// How much of a start marker has begun at the end of the text.
inline std::size_t begunStartMarker(std::string_view text) {
  std::size_t begun = proxy::EventSplitter::kStartMarker.size() - 1;
  while (!text.ends_with(proxy::EventSplitter::kStartMarker.substr(0, begun))) {
    --begun;
  }
  return begun;
}

inline std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) {
    all += text;
  }
  return all;
}

} // namespace proxy_testing
