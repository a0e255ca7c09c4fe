#include "proxy/PendingTexts.h"

#include <algorithm>
#include <utility>

namespace proxy {

PendingTexts::Connection::Connection(PendingTexts& owner, std::function<void()> onDropped)
    : owner_(owner), onDropped_(std::move(onDropped)) {
  std::scoped_lock lock(owner_.mutex_);
  owner_.connections_.insert(this);
}

PendingTexts::Connection::~Connection() {
  std::scoped_lock lock(owner_.mutex_);
  owner_.set(*this, 0);
  owner_.connections_.erase(this);
}

bool PendingTexts::Connection::hold(std::size_t bytes) {
  std::scoped_lock lock(owner_.mutex_);
  if (!dropped_) {
    owner_.set(*this, bytes);
    while (owner_.bytes_ > owner_.limits().total) {
      owner_.dropOne();
    }
  }
  return !dropped_;
}

void PendingTexts::Connection::markDelivered() {
  std::scoped_lock lock(owner_.mutex_);
  delivered_ = true;
}

bool PendingTexts::Connection::isDropped() const {
  std::scoped_lock lock(owner_.mutex_);
  return dropped_;
}

void PendingTexts::set(Connection& connection, std::size_t bytes) {
  bytes_ += bytes - connection.bytes_;
  connection.bytes_ = bytes;
}

/// Precondition: the total is not 0.
void PendingTexts::dropOne() {
  const auto rank = [](const Connection* connection) { // dropped connections hold 0 bytes
    return std::pair(connection->bytes_ != 0 && !connection->delivered_, connection->bytes_);
  };
  Connection& dropped = **std::max_element(
      connections_.begin(), connections_.end(),
      [&](const auto* one, const auto* other) { return rank(one) < rank(other); });
  dropped.dropped_ = true;
  set(dropped, 0);
  dropped.onDropped_();
}

} // namespace proxy
