#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>

namespace proxy {

struct PendingLimits {
  std::size_t perConnection = std::size_t{64} << 20; ///< of an incomplete document
  std::size_t total = std::size_t{256} << 20;
};

/// Limits the memory that all connections of the event socket server hold for documents that the
/// consumer has not yet taken.
///
/// While the total exceeds the limit, a connection is dropped: one that has never delivered a
/// document before one that has; among these the one that holds the most bytes. A connection that
/// holds nothing is never dropped.
///
/// Threads: any. Errors: constructing a Connection throws std::bad_alloc.
class PendingTexts {
public:
  /// The account of one connection. Owner: its thread. Must not outlive the PendingTexts.
  class Connection {
  public:
    /// `onDropped` is called at most once, on any connection's thread, under the lock: it must not
    /// throw or call back.
    Connection(PendingTexts& owner, std::function<void()> onDropped);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// Sets the number of bytes held. False if the connection has been dropped.
    bool hold(std::size_t bytes);
    /// Records that the consumer has taken a document of this connection.
    void markDelivered();
    bool isDropped() const;

  private:
    friend PendingTexts;

    PendingTexts& owner_;
    const std::function<void()> onDropped_;
    // Guarded by the lock of owner_:
    std::size_t bytes_ = 0;
    bool delivered_ = false;
    bool dropped_ = false;
  };

  explicit PendingTexts(PendingLimits limits = {}) : limits_(limits) {}

  const PendingLimits& limits() const noexcept { return limits_; }

private:
  void set(Connection& connection, std::size_t bytes);
  void dropOne();

  const PendingLimits limits_;
  mutable std::mutex mutex_; // guards the members below
  std::set<Connection*> connections_;
  std::size_t bytes_ = 0; // total of the connections that are not dropped
};

} // namespace proxy
