#include "adapter/UPOSDatagramConnector.h"

#include "trace/UPOSLog.h"
#include "win/Handles.h"

using trace::UPOSLog;

namespace adapter {

namespace {

constexpr std::uint32_t kFailed = 0xFFFFFFFF;
constexpr DWORD kPauseAfterErrorMilliseconds = 1000;

bool startWinsockOnce(std::atomic<std::uint32_t>& started) {
  if (started == 0) {
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) {
      return false;
    }
    started = 1;
  }
  return true;
}

} // namespace

std::uint32_t UPOSDatagramConnector::Bind(std::uint16_t port) {
  if (datagramBound == 1) {
    return 0; // by design also for a connector that does not own the process's socket
  }
  if (!startWinsockOnce(winsockStarted)) {
    return kFailed;
  }
  win::Socket created(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  if (!created) {
    return kFailed;
  }
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = inet_addr("0.0.0.0");
  local.sin_port = htons(port);
  if (bind(created.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    return kFailed;
  }
  socket = created.release();
  datagramBound = 1;
  return 0;
}

void UPOSDatagramConnector::Receive(ByteBuffer* out) {
  if (datagramBound != 1) {
    return;
  }
  readFrame(
      frame, *out, [this](char* area, int size) { return receiveDatagram(area, size); },
      [this](ByteBuffer& collected) {
        if (collected.size() > maxMessageSize) {
          UPOSLog::trace("Dropping a message without an end mark after %d bytes", collected.size());
          collected.clear();
        }
      },
      [](const ByteBuffer&) {});
}

int UPOSDatagramConnector::receiveDatagram(char* area, int size) const {
  while (datagramBound == 1) {
    const int received = recvfrom(socket, area, size, 0, nullptr, nullptr);
    if (received > 0) {
      return received;
    }
    // After WSAEMSGSIZE only that datagram is lost; any other error may persist.
    if (received < 0 && WSAGetLastError() != WSAEMSGSIZE) {
      Sleep(kPauseAfterErrorMilliseconds);
    }
  }
  return 0;
}

int UPOSDatagramConnector::Close() {
  if (datagramBound != 1) {
    return 0;
  }
  const int result = closesocket(socket);
  if (result == 0) {
    socket = 0;
    datagramBound = 0;
  }
  return result;
}

} // namespace adapter
