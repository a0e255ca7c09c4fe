#pragma once

#include "adapter/ByteBuffer.h"
#include "adapter/FrameReader.h"

#include <winsock2.h>

#include <atomic>
#include <cstdint>

/// Receives the device server's event messages as datagrams on the event port. One socket per
/// process: while one is bound, Bind makes no other.
///
/// Owner and only user: the event thread. Destroying it leaves the socket open. The order of the
/// fields is fixed.
struct UPOSDatagramConnector {
  SOCKET socket = 0;
  sockaddr_in local{};
  FrameArea frame; ///< persists between messages: one datagram may hold several
  /// What is kept of a message whose end mark does not come. Anybody who reaches the port could
  /// otherwise have the service collect datagrams until the machine's memory is used up.
  std::uint32_t maxMessage = 64 * 1024 * 1024;

  /// 0 when bound now or before, 0xFFFFFFFF on failure.
  std::uint32_t Bind(std::uint16_t port);
  /// Blocks until one message has been appended to `out`; leaves `out` alone when nothing is bound.
  /// An empty datagram is nothing, one longer than 1024 bytes is lost, and a failing socket is
  /// asked again once a second. A message longer than maxMessage is dropped with a trace line.
  void Receive(ByteBuffer* out);
  /// Closes the socket if it is bound: closesocket's result, 0 when nothing was bound.
  int Close();

  static inline std::atomic<std::uint32_t> datagramBound = 0;
  static inline std::atomic<std::uint32_t> winsockStarted = 0;

private:
  int receiveDatagram(char* area, int size) const;
};
