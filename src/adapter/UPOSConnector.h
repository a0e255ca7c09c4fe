#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/FrameReader.h"

#include <winsock2.h>

#include <atomic>
#include <cstdint>

namespace adapter {

/// Reads the answer of one request exchange from its connected socket, which it does not own.
///
/// Owner and thread: the exchange.
struct UPOSConnector {
  SOCKET socket = INVALID_SOCKET;
  SOCKET recvSocket = INVALID_SOCKET;
  std::int32_t ready = 0; ///< 1 once the request has been sent
  FrameArea frame;

  /// Sets `recvSocket` to `socket` and calls Receive2.
  int Receive(ByteBuffer* out);
  /// Appends one message to `out`. Blocks until it is complete, or until the connection ends, which
  /// leaves the bytes collected so far. Does nothing unless `streamReady` and `ready` are 1. Always
  /// returns 0.
  int Receive2(ByteBuffer* out);

  /// 1 since the first exchange of the process.
  static inline std::atomic<std::uint32_t> streamReady = 0;
};

} // namespace adapter
