#include "device_server/EventChannel.h"

namespace till {

using asio::ip::udp;

DatagramEventChannel::DatagramEventChannel(asio::io_context& context, std::uint16_t port)
    : socket_(context, udp::endpoint(asio::ip::address_v4::loopback(), 0)),
      receiver_(asio::ip::address_v4::loopback(), port) {}

void DatagramEventChannel::send(Delivery delivery) {
  socket_.send_to(asio::buffer(delivery.bytes), receiver_);
}

} // namespace till
