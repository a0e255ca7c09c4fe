#pragma once

#include <asio.hpp>

#include <cstdint>
#include <string>

namespace till {

/// Where event documents go. Throws std::system_error when one cannot be handed over.
class EventChannel {
public:
  EventChannel() = default;
  virtual ~EventChannel() = default;
  EventChannel(const EventChannel&) = delete;
  EventChannel& operator=(const EventChannel&) = delete;

  /// One datagram or one piece of a stream, as it stands.
  virtual void send(const std::string& bytes) = 0;
};

/// Datagrams to the event port on this machine. Nobody need listen there: a datagram to a closed
/// port is lost without a sign.
class DatagramEventChannel : public EventChannel {
public:
  DatagramEventChannel(asio::io_context& context, std::uint16_t port);
  void send(const std::string& bytes) override;

private:
  asio::ip::udp::socket socket_;
  asio::ip::udp::endpoint receiver_;
};

} // namespace till
