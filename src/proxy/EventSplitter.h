#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace proxy {

/// Splits the stream of one connection into event documents.
///
/// Owner and thread: the connection's. Complexity: linear in the received text.
/// Errors: std::bad_alloc, after which the connection's text is lost.
///
/// Rules for each received text:
/// - It contains the start marker: the pending text plus the text before the marker is one document
///   unless it is empty. The rest is split after each end marker; the remainder becomes pending.
/// - Otherwise: it is appended to the pending text. If that now contains the end marker, all of it,
///   including what follows the marker, is one document.
/// No character is lost or added.
///
/// A proper prefix of the start marker at the end of a received text is held back and put in front
/// of the next one, so that a marker is found wherever the connection split it. If no marker
/// follows, the documents are the same, except that one completed by the second rule ends before
/// the held-back prefix.
class EventSplitter {
public:
  static constexpr std::string_view kStartMarker =
      "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";
  static constexpr std::string_view kEndMarker = "</event>";

  /// Returns the documents that `received` completes, in order.
  std::vector<std::string> split(std::string_view received);

  /// Size of the incomplete document.
  std::size_t pendingSize() const noexcept { return pending_.size() + heldBack_.size(); }

private:
  std::vector<std::string> splitText(std::string_view text);

  std::string pending_;  // never contains the end marker
  std::string heldBack_; // follows pending_: a proper prefix of the start marker
};

} // namespace proxy
