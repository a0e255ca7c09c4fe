// Sends a probe event to the service and waits for it at WMI; what the survey makes of it is in
// Survey.cpp.

#include "quillmonctl/ProbeEvent.h"
#include "quillmonctl/SocketLibrary.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Wmi.h"
#include "win/Handles.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace ctl {
namespace {

/// A datagram may be lost, or end a message that another sender has left without its end.
constexpr unsigned kAttempts = 3;

void check(bool succeeded, const char* step) {
  if (!succeeded) {
    failWin32(step, static_cast<DWORD>(WSAGetLastError()));
  }
}

sockaddr_in loopback(unsigned port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

win::Socket makeSocket(int type) {
  win::Socket socket(::socket(AF_INET, type, 0));
  check(bool(socket), "making a socket for the probe");
  return socket;
}

void sendDatagram(unsigned port, const std::string& id) {
  const win::Socket socket = makeSocket(SOCK_DGRAM);
  const std::string bytes = probeDatagram(id);
  const sockaddr_in address = loopback(port);
  check(sendto(socket.get(), bytes.data(), static_cast<int>(bytes.size()), 0,
               reinterpret_cast<const sockaddr*>(&address), sizeof address) != SOCKET_ERROR,
        "sending a probe to the event port (sendto)");
}

/// The connection, which the caller keeps: closed with a request of the service's unread, it might
/// take the probe along.
win::Socket sendOverConnection(const Survey& survey, const std::string& id) {
  sockaddr_in address = loopback(survey.sockets.eventPort);
  const unsigned long configured = inet_addr(survey.sockets.eventAddress.c_str());
  if (configured != INADDR_ANY && configured != INADDR_NONE) {
    address.sin_addr.s_addr = configured;
  }
  win::Socket socket = makeSocket(SOCK_STREAM);
  check(connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
        "connecting to the event port for a probe (connect)");
  const std::string bytes = probeDocument(id);
  check(::send(socket.get(), bytes.data(), static_cast<int>(bytes.size()), 0) != SOCKET_ERROR,
        "sending a probe to the event port (send)");
  return socket;
}

} // namespace

Survey::Probe probeEvents(const Survey& survey, unsigned seconds) {
  using Clock = Wmi::Clock;
  Survey::Probe probe;
  if (!survey.sockets.eventPortOpen) {
    return probe;
  }
  const SocketLibrary library;
  const std::string id = fmt::format("quillmonctl-{}-{}", GetCurrentProcessId(), GetTickCount64());
  try {
    Wmi wmi;
    for (unsigned i = 0; i < kAttempts && !probe.arrived; ++i) {
      Wmi::Events events = wmi.subscribe(probeQuery(id));
      const Clock::time_point sent = Clock::now();
      win::Socket connection;
      if (survey.service.path.isProxy()) {
        connection = sendOverConnection(survey, id);
      } else {
        sendDatagram(survey.sockets.eventPort, id);
      }
      ++probe.sent;
      if (events.next(sent + std::chrono::seconds(std::max(1U, seconds / kAttempts)))) {
        probe.arrived = true;
        probe.milliseconds = static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - sent).count());
      }
    }
  } catch (const Failure& failure) {
    probe.error = errorOf(failure);
  }
  return probe;
}

} // namespace ctl
