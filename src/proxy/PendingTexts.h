#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>

struct PendingLimits {
  std::size_t ofOne = std::size_t{64} << 20; ///< one connection's text without an end
  std::size_t together = std::size_t{256} << 20;
};

/// Sees to it that what the connections of the event socket server hold of documents that nobody
/// has taken yet stays within a limit, whoever connects, as often as it likes.
///
/// Beyond the limit connections are dropped until the rest is within it: one that has never
/// delivered a document before one that has, and of these the one that holds the most. One that
/// holds nothing takes nothing from the others, and is never dropped.
///
/// Threads: any. Errors: std::bad_alloc for a new connection.
class PendingTexts {
public:
  /// What one connection holds. Belongs to its thread, lives shorter than the PendingTexts.
  class Connection {
  public:
    /// `onDropped` is called once at most, by any connection's thread and under the lock: it must
    /// not throw, and not call back.
    Connection(PendingTexts& all, std::function<void()> onDropped);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    /// So many bytes are held from now on. False when the connection has been dropped.
    bool hold(std::size_t bytes);
    /// A document of this connection has been taken.
    void delivered();
    bool isDropped() const;

  private:
    friend PendingTexts;

    PendingTexts& all_;
    const std::function<void()> onDropped_;
    std::size_t bytes_ = 0; // the rest is guarded by the lock of all
    bool delivered_ = false;
    bool dropped_ = false;
  };

  explicit PendingTexts(PendingLimits limits = {}) : limits_(limits) {}

  const PendingLimits& limits() const noexcept { return limits_; }

private:
  void set(Connection& connection, std::size_t bytes);
  void dropOne();

  const PendingLimits limits_;
  mutable std::mutex mutex_; // guards the rest
  std::set<Connection*> connections_;
  std::size_t bytes_ = 0; // of all connections that are not dropped
};
