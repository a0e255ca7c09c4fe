#pragma once

#include "adapter/ByteBuffer.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace adapter {

/// The framing of the request socket and of the event port. A message is the bytes between ESC and
/// the next BS. Bytes before the ESC are dropped; an ESC inside a message is data. There is no
/// length field and no escaping.

inline constexpr char kFrameBegin = '\x1B';
inline constexpr char kFrameEnd = '\x08';
inline constexpr std::int32_t kFrameAreaSize = 1024;

/// The bytes of the last receive. Those after an end mark stay for the next message.
struct FrameArea {
  std::array<char, kFrameAreaSize> area;
  std::int32_t count = 0;    ///< bytes received
  std::int32_t position = 0; ///< index of the first unconsumed byte
};

/// Appends one message to `out`. Returns at its end mark, or with the bytes collected so far when
/// `receive` reports the end. Never reads bytes that were not received.
///
/// `receive(char* area, int size)` returns the number of bytes written; 0 or less at the end.
/// `onAreaConsumed(out)` is called before each receive, including the first. If it changes the size
/// of `out`, the rest of the current message is skipped up to the next ESC. `onEndMark(out)` is
/// called when the message is complete. Exceptions of the callables and of `out` pass.
template <class Receive, class OnAreaConsumed, class OnEndMark>
void readFrame(FrameArea& frame, ByteBuffer& out, Receive receive, OnAreaConsumed onAreaConsumed,
               OnEndMark onEndMark) {
  char* const area = frame.area.data();
  bool inMessage = false;
  for (;;) {
    const char* const end = area + frame.count;
    const char* next = area + frame.position;
    if (!inMessage) {
      next = std::find(next, end, kFrameBegin);
      inMessage = next != end;
      next += inMessage ? 1 : 0;
    }
    if (inMessage) {
      const char* const mark = std::find(next, end, kFrameEnd);
      out.appendBytes(next, static_cast<std::uint32_t>(mark - next));
      if (mark != end) {
        frame.position = static_cast<std::int32_t>(mark + 1 - area);
        onEndMark(out);
        return;
      }
    }
    const std::uint32_t collected = out.size();
    onAreaConsumed(out);
    inMessage = inMessage && out.size() == collected;
    frame.position = 0;
    frame.count = 0; // for the next call, in case nothing is received
    const int received = receive(area, kFrameAreaSize);
    if (received <= 0) {
      return;
    }
    frame.count = received;
  }
}

} // namespace adapter
