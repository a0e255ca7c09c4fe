#pragma once

#include "till/EventChannel.h"
#include "till/Log.h"

#include <asio.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace till {

/// The proxy strategy's connection: made to the event port on this machine, and made again after a
/// growing pause whenever it is refused or lost. Events go out on it, requests come in. Logs one
/// line for each change of its state, not for each attempt.
/// Runs on the context's one thread and must outlive the context's run, as must the log.
class EventStream : public EventChannel {
public:
  static constexpr std::chrono::milliseconds kFirstPause{100};
  static constexpr std::chrono::milliseconds kLongestPause{5000};
  /// What may wait to be taken by the service, in bytes.
  static constexpr std::size_t kMostWaiting = std::size_t{64} * 1024 * 1024;
  static constexpr std::size_t kLargestRequest = std::size_t{1024} * 1024;

  EventStream(asio::io_context& context, std::uint16_t port, Log& log);
  ~EventStream() override;

  /// Begins to connect. `connected` is called after each connect, `request` with each document that
  /// the service sends.
  void start(std::function<void()> connected, std::function<void(const std::string&)> request);

  /// Throws std::system_error without a connection, and when too much is waiting already.
  void send(Delivery delivery) override;
  bool isConnected() const override { return state_ == State::Connected; }
  /// Both close at once: what the system has not had room for by then is not sent.
  void disconnect() override;
  void reconnect() override;

  /// Calls `sent` when everything that waits has been sent and the service has closed the
  /// connection, or after a while all the same.
  void finish(std::function<void()> sent);

private:
  enum class State { Connecting, Connected, Waiting, Away };
  struct Connection;
  using ConnectionPointer = std::shared_ptr<Connection>;

  void connect();
  void established();
  void read();
  void received(asio::error_code problem, std::size_t count);
  void write();
  bool writePiece(const Delivery& delivery);
  void endSending();
  void reset();
  void close();
  void lose(const std::string& line);
  std::string peer() const;

  asio::io_context& context_;
  asio::ip::tcp::endpoint service_;
  Log& log_;
  asio::steady_timer retry_;
  asio::steady_timer patience_;
  std::function<void()> connected_;
  std::function<void(const std::string&)> request_;
  std::function<void()> finished_;
  State state_ = State::Connecting;
  std::chrono::milliseconds pause_ = kFirstPause;
  // Handlers of an earlier connection see that it is not theirs, and do nothing.
  ConnectionPointer connection_;
};

} // namespace till
