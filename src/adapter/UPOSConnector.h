#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/FrameReader.h"

#include <winsock2.h>

#include <atomic>
#include <cstdint>

/// Reads the answer of one request exchange from its connected socket, which it does not own.
///
/// Owner and only user: the exchange. The order of the fields is fixed.
struct UPOSConnector {
  SOCKET socket = INVALID_SOCKET;
  SOCKET recvSocket = INVALID_SOCKET;
  std::int32_t ready = 0; ///< 1 once the request has been sent
  FrameArea frame;

  /// Reads from `socket`; see Receive2.
  int Receive(ByteBuffer* out);
  /// Blocks until one message has been appended to `out`, or the peer has closed or failed, which
  /// leaves what was collected. Leaves `out` alone when no request was sent. Always 0.
  int Receive2(ByteBuffer* out);

  /// 1 from the first exchange of the process on.
  static inline std::atomic<std::uint32_t> streamReady = 0;
};
