#pragma once

#include "till/Delivery.h"

#include <asio.hpp>

#include <cstdint>

namespace till {

/// Where event documents go. Throws std::system_error when one cannot be handed over.
class EventChannel {
public:
  EventChannel() = default;
  virtual ~EventChannel() = default;
  EventChannel(const EventChannel&) = delete;
  EventChannel& operator=(const EventChannel&) = delete;

  /// One datagram, or bytes of a stream in the pieces and with the end that are asked for.
  virtual void send(Delivery delivery) = 0;

  /// Whether something sent now can arrive; without a connection nobody knows.
  virtual bool isConnected() const { return true; }
  /// For channels that have a connection: end it and stay away; connect at once, anew.
  virtual void disconnect() {}
  virtual void reconnect() {}
};

/// Datagrams to the event port on this machine. Nobody need listen there: a datagram to a closed
/// port is lost without a sign.
class EventDatagrams : public EventChannel {
public:
  EventDatagrams(asio::io_context& context, std::uint16_t port)
      : socket_(context, {asio::ip::address_v4::loopback(), 0}),
        receiver_(asio::ip::address_v4::loopback(), port) {}

  void send(Delivery delivery) override {
    socket_.send_to(asio::buffer(delivery.bytes), receiver_);
  }

private:
  asio::ip::udp::socket socket_;
  asio::ip::udp::endpoint receiver_;
};

} // namespace till
