#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

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

} // namespace till
