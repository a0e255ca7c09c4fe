#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace till {

inline constexpr char kStartMark = '\x1B'; // ESC
inline constexpr char kEndMark = '\x08';   // BS

/// A message between its marks. The message must not hold an end mark: nothing is escaped.
std::string frame(std::string_view message);

/// Finds one framed message in a byte stream: what precedes the start mark is dropped, a start mark
/// inside the message is data. Feed it until it gives the message.
class FrameScanner {
public:
  std::optional<std::string> feed(std::string_view bytes);

  /// All bytes fed, the dropped ones too.
  std::size_t fed() const { return fed_; }
  bool started() const { return started_; }

private:
  bool started_ = false;
  std::size_t fed_ = 0;
  std::string message_;
};

/// Cuts a stream without marks into request documents: each ends with its end tag, and blanks
/// between two are dropped. Linear in the bytes fed.
class RequestScanner {
public:
  static constexpr std::string_view kEndTag = "</request>";

  /// The documents that the bytes complete, in order.
  std::vector<std::string> feed(std::string_view bytes);

  /// Bytes of the document that is not complete yet.
  std::size_t pendingSize() const { return pending_.size(); }

private:
  std::string pending_;
};

} // namespace till
