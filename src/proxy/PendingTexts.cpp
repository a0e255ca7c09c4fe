#include "proxy/PendingTexts.h"

#include <algorithm>
#include <utility>

PendingTexts::Connection::Connection(PendingTexts& all, std::function<void()> onDropped)
    : all_(all), onDropped_(std::move(onDropped)) {
  std::scoped_lock lock(all_.mutex_);
  all_.connections_.insert(this);
}

PendingTexts::Connection::~Connection() {
  std::scoped_lock lock(all_.mutex_);
  all_.set(*this, 0);
  all_.connections_.erase(this);
}

bool PendingTexts::Connection::hold(std::size_t bytes) {
  std::scoped_lock lock(all_.mutex_);
  if (!dropped_) {
    all_.set(*this, bytes);
    while (all_.bytes_ > all_.limits().together) {
      all_.dropOne();
    }
  }
  return !dropped_;
}

void PendingTexts::Connection::delivered() {
  std::scoped_lock lock(all_.mutex_);
  delivered_ = true;
}

bool PendingTexts::Connection::isDropped() const {
  std::scoped_lock lock(all_.mutex_);
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
