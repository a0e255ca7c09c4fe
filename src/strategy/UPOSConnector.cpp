#include "strategy/UPOSConnector.h"

#include "trace/UPOSLog.h"

#include <string_view>

namespace {

// The copy and its line cost time in the square of the answer's length, and so are made only while
// somebody reads the trace.
void traceCollected(std::string_view label, const ByteBuffer& collected) {
  if (UPOSLog::isSwitchedOn()) {
    UPOSLog::trace(label);
    UPOSLog::trace(collected.clone()->text());
  }
}

} // namespace

int UPOSConnector::Receive(ByteBuffer* out) {
  recvSocket = socket;
  return Receive2(out);
}

int UPOSConnector::Receive2(ByteBuffer* out) {
  if (streamReady != 1 || ready != 1) {
    return 0;
  }
  readFrame(
      frame, *out, [this](char* area, int size) { return recv(recvSocket, area, size, 0); },
      [](const ByteBuffer& collected) {
        traceCollected("<<UPOSConnector::Receive2()>> Calling clone", collected);
      },
      [](const ByteBuffer& collected) {
        traceCollected("<<UPOSConnector::Receive2()>> Calling clone OUT_MARK", collected);
      });
  return 0;
}
