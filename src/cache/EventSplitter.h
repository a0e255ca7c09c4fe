#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Cuts one connection's text into event documents, one received text at a time.
///
/// The rules are the device servers', odd ones included:
/// - A received text that holds the start marker ends what was pending: that, with the text before
///   the marker, is a document of its own if it is not empty. The rest is cut behind each end
///   marker; what is left over is pending.
/// - Any other received text is added to what is pending; once that holds the end marker, all of
///   it, also what follows the marker, is one document.
/// No character is lost or added: the documents and what is pending are the received texts, joined.
///
/// So a document may arrive in any number of pieces, with one exception: a start marker that is cut
/// in two is not seen, and where the end of the document before it came in the same text, without
/// that document's start marker, the two are cut in the wrong place. Whoever receives therefore
/// ends no text within a start marker (`begunStartMarker`).
///
/// Owner: one connection's thread. Time: linear in the text received. Errors: std::bad_alloc only.
class EventSplitter {
public:
  static constexpr std::string_view kStartMarker =
      "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";
  static constexpr std::string_view kEndMarker = "</event>";

  /// How many characters at the end of `received` are the beginning of a start marker that is not
  /// complete: they belong to the text received next.
  static std::size_t begunStartMarker(std::string_view received) noexcept;

  /// The documents that `received` completes, in order.
  std::vector<std::string> split(std::string_view received);

  /// Bytes of the document that is not yet complete.
  std::size_t pendingSize() const noexcept { return pending_.size(); }

private:
  std::string pending_; // never holds the end marker
};
