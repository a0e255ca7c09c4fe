#pragma once

#include "adapter/ByteBuffer.h"

#include <algorithm>
#include <array>
#include <cstdint>

/// The framing of the request socket and of the event port. A message is the bytes between ESC and
/// the next BS; what stands before an ESC is dropped, an ESC inside a message is data. There is no
/// length and no escaping.

inline constexpr char kFrameBegin = '\x1B';
inline constexpr char kFrameEnd = '\x08';
inline constexpr std::int32_t kFrameAreaSize = 1024;

/// What one receive left, and how much of it is consumed: bytes behind an end mark stay here and
/// begin the next message's scan.
struct FrameArea {
  std::array<char, kFrameAreaSize> area;
  std::int32_t count = 0;    ///< bytes from the last receive
  std::int32_t position = 0; ///< index of the first byte not yet consumed
};

/// Appends one message to `out`. Ends at its end mark; or, with what was collected so far, as soon
/// as nothing more arrives. Bytes that were not received are never looked at.
///
/// `receive(char* area, int size)` gives the number of bytes it wrote, 0 or less for no more.
/// `onAreaUsedUp(out)` is called before each receive, so before the very first one too; taking
/// bytes out of `out` drops the message: what is left of it is not the next one, which begins at an
/// ESC. `onEndMark(out)` when the message is complete. Exceptions of the callables and of `out`
/// pass.
template <class Receive, class OnAreaUsedUp, class OnEndMark>
void readFrame(FrameArea& frame, ByteBuffer& out, Receive receive, OnAreaUsedUp onAreaUsedUp,
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
    onAreaUsedUp(out);
    inMessage = inMessage && out.size() == collected;
    frame.position = 0;
    frame.count = 0; // stays so when nothing is received: the next call starts afresh
    const int received = receive(area, kFrameAreaSize);
    if (received <= 0) {
      return;
    }
    frame.count = received;
  }
}
