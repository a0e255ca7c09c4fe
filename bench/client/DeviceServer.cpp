#include "DeviceServer.h"

#include "Documents.h"
#include "Loopback.h"

#include <stdexcept>
#include <thread>

namespace bench {
namespace {

using test_support::loopback;

std::string framed(const std::string& document) {
  return '\x1B' + document + '\x08';
}

bool sendAll(SOCKET socket, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const int count = send(socket, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0);
    if (count <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

} // namespace

DeviceServer::DeviceServer(std::uint16_t requestPort)
    : listener_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
  const sockaddr_in address = loopback(requestPort);
  if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("the request port is taken");
  }
  setCount(1);
  std::thread([this] { serve(); }).detach();
}

void DeviceServer::setCount(std::size_t count) {
  auto answer = std::make_shared<const std::string>(framed(documents::answer(count)));
  const std::scoped_lock lock(mutex_);
  answer_ = std::move(answer);
}

void DeviceServer::serve() {
  for (;;) {
    const win::Socket connection(accept(listener_.get(), nullptr, nullptr));
    if (connection) {
      answer(connection.get());
    }
  }
}

void DeviceServer::answer(SOCKET connection) {
  std::string request;
  char piece[4096];
  while (!request.ends_with('\x08')) {
    const int count = recv(connection, piece, sizeof piece, 0);
    if (count <= 0) {
      return;
    }
    request.append(piece, static_cast<std::size_t>(count));
  }
  if (const std::size_t id = request.find("<id>"); id != std::string::npos) {
    const std::size_t begin = id + 4;
    sendAll(connection,
            framed(documents::answerFor(request.substr(begin, request.find('<', begin) - begin))));
    return;
  }
  std::shared_ptr<const std::string> answer;
  {
    const std::scoped_lock lock(mutex_);
    answer = answer_;
  }
  sendAll(connection, *answer);
}

EventChannel::EventChannel(std::uint16_t port, bool isStream)
    : isStream_(isStream), socket_(socket(AF_INET, isStream ? SOCK_STREAM : SOCK_DGRAM, 0)) {
  const sockaddr_in address = loopback(port);
  if (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no connection to the event port");
  }
}

bool EventChannel::send(const std::string& type, std::size_t device) {
  const std::string document = documents::event(type, device);
  return sendAll(socket_.get(), isStream_ ? document : framed(document));
}

} // namespace bench
