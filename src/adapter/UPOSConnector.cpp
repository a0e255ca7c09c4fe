#include "adapter/UPOSConnector.h"

#include "trace/UPOSLog.h"

#include <string_view>

using trace::UPOSLog;

namespace adapter {

namespace {

// Despite the label no copy is made: tracing that is switched off must not cost a copy.
void traceCollected(std::string_view label, const ByteBuffer& collected) {
  UPOSLog::trace(label);
  UPOSLog::trace(std::string_view(collected.text(), collected.size()));
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

} // namespace adapter
