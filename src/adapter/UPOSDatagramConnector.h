#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/FrameReader.h"

#include <winsock2.h>

#include <atomic>
#include <cstdint>

namespace adapter {

/// Receives the device server's event messages as datagrams on the event port. One socket per
/// process: while one is bound, Bind creates no other.
///
/// Owner and thread: the event thread. The destructor leaves the socket open.
struct UPOSDatagramConnector {
  SOCKET socket = 0;
  sockaddr_in local{};
  FrameArea frame; ///< kept between calls: one datagram may hold several messages
  /// Longest message in bytes. Without a limit, any peer that reaches the port could exhaust the
  /// machine's memory by omitting the end mark.
  std::uint32_t maxMessageSize = 64 * 1024 * 1024;

  /// 0 when bound, now or earlier; 0xFFFFFFFF on failure.
  std::uint32_t Bind(std::uint16_t port);
  /// Appends one message to `out`; blocks until it is complete. Does nothing when the process
  /// has bound no socket. Empty datagrams are ignored, datagrams longer than 1024 bytes are lost, a
  /// message longer than maxMessageSize is dropped with a trace line. A failing receive is retried
  /// once per second.
  void Receive(ByteBuffer* out);
  /// Closes the socket if it is bound. Returns closesocket's result; 0 when none was bound.
  int Close();

  static inline std::atomic<std::uint32_t> datagramBound = 0;
  static inline std::atomic<std::uint32_t> winsockStarted = 0;

private:
  int receiveDatagram(char* area, int size) const;
};

} // namespace adapter
