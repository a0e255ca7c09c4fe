// Any text on a device server's connection, in pieces of any length.

#include "Fuzzing.h"
#include "proxy/testing/SplitterRules.h"

#include <algorithm>
#include <iterator>

using fuzzing::require;
using proxy::EventSplitter;
using proxy_testing::begunStartMarker;
using proxy_testing::joined;
using proxy_testing::SplitterRules;

namespace {

using Documents = std::vector<std::string>;

void append(Documents& documents, Documents more) {
  std::move(more.begin(), more.end(), std::back_inserter(documents));
}

/// Any texts at all: as the rules say for texts that end outside a start marker, and nothing lost
/// or added.
void splitAnything(const std::vector<std::string_view>& texts) {
  EventSplitter splitter;
  Documents documents;
  Documents expected;
  SplitterRules rules;
  std::string held;
  std::string received;
  for (const std::string_view text : texts) {
    received += text;
    append(documents, splitter.split(text));
    held += text;
    const std::size_t whole = held.size() - begunStartMarker(held);
    append(expected, rules.split(held.substr(0, whole)));
    held.erase(0, whole);
    require(documents == expected, "the documents are those of the rules");
    require(splitter.pendingSize() == rules.pending.size() + held.size(),
            "what is pending is what the rules leave");
    require(joined(documents) + rules.pending + held == received, "no character is lost or added");
  }
}

/// As if no marker could be cut: the same documents as long as none is.
void splitUncut(const std::vector<std::string_view>& texts) {
  EventSplitter splitter;
  Documents documents;
  Documents expected;
  SplitterRules rules;
  for (const std::string_view text : texts) {
    if (begunStartMarker(text) != 0) {
      return;
    }
    append(documents, splitter.split(text));
    append(expected, rules.split(std::string(text)));
    require(documents == expected, "without a begun marker the rules hold to the letter");
  }
}

std::string without(std::string text, std::string_view marker) {
  for (std::size_t found = 0; (found = text.find(marker)) != std::string::npos;) {
    text.erase(found, marker.size());
  }
  return text;
}

/// `text`'s lines as the bodies of proper documents.
Documents properDocuments(std::string_view text) {
  Documents documents;
  while (!text.empty()) {
    std::string body(fuzzing::cutFront(text, '\n'));
    std::size_t size = 0;
    do { // taking one marker out may put another one together
      size = body.size();
      body = without(without(body, EventSplitter::kStartMarker), EventSplitter::kEndMarker);
    } while (body.size() != size);
    documents.push_back(std::string(EventSplitter::kStartMarker) + body +
                        std::string(EventSplitter::kEndMarker));
  }
  // A body may begin or end with half a marker; with its neighbour it must not make another one.
  const std::string all = joined(documents);
  std::size_t starts = 0;
  for (std::size_t at = 0; (at = all.find(EventSplitter::kStartMarker, at)) != std::string::npos;
       ++at) {
    ++starts;
  }
  return starts == documents.size() ? documents : Documents();
}

/// Proper documents arrive whole and in order, however the connection cuts them.
void splitProperDocuments(const Documents& documents, std::string_view lengths) {
  EventSplitter splitter;
  Documents found;
  const std::string all = joined(documents);
  for (const std::string_view piece : fuzzing::piecesOf(all, lengths)) {
    append(found, splitter.split(piece));
  }
  require(splitter.pendingSize() == 0, "nothing is left over");
  require(found == documents, "the documents do not depend on the pieces");
}

} // namespace

/// The first line gives the lengths of the pieces, the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view stream = fuzzing::textOf(data, size);
  const std::string_view lengths = fuzzing::cutFront(stream, '\n');
  splitAnything(fuzzing::piecesOf(stream, lengths));
  splitUncut(fuzzing::piecesOf(stream, lengths));
  splitProperDocuments(properDocuments(stream), lengths);
  return 0;
}
