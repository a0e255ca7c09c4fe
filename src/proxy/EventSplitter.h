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
/// So a document may arrive in any number of pieces. A text that ends within what may be a start
/// marker is taken without that beginning, which goes in front of the next text: a marker is seen
/// wherever the connection cut it. Where none comes of it the documents are the same, but for one
/// that the text completed without a start marker of its own: it ends before that beginning.
///
/// Owner: one connection's thread. Time: linear in the text received. Errors: std::bad_alloc only,
/// after which the connection's text is lost.
class EventSplitter {
public:
  static constexpr std::string_view kStartMarker =
      "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";
  static constexpr std::string_view kEndMarker = "</event>";

  /// The documents that `received` completes, in order.
  std::vector<std::string> split(std::string_view received);

  /// Bytes of the document that is not yet complete.
  std::size_t pendingSize() const noexcept { return pending_.size() + begun_.size(); }

private:
  std::vector<std::string> splitWhole(std::string_view text);

  std::string pending_; // never holds the end marker
  std::string begun_;   // behind it: less than a start marker
};
