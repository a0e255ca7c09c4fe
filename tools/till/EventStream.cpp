#include "till/EventStream.h"

#include "till/Frame.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <deque>
#include <string_view>
#include <system_error>
#include <utility>

namespace till {

using asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kLongestFinish{10};

/// A port that nobody listens on can be connected to itself, when the system happens to choose it
/// as the connection's own port as well.
bool isToItself(const tcp::socket& socket) {
  asio::error_code ignored;
  return socket.local_endpoint(ignored) == socket.remote_endpoint(ignored);
}

} // namespace

struct EventStream::Connection {
  explicit Connection(asio::io_context& context) : socket(context), pace(context) {}

  tcp::socket socket;
  asio::steady_timer pace;
  Clock::time_point since;
  std::array<char, 4096> area{};
  RequestScanner scanner;
  std::deque<Delivery> waiting;
  std::size_t waitingBytes = 0;
  std::size_t sent = 0; // of the first that waits
  bool writing = false; // a handler will go on
};

EventStream::EventStream(asio::io_context& context, std::uint16_t port, Log& log)
    : context_(context), service_(asio::ip::address_v4::loopback(), port), log_(log),
      retry_(context), patience_(context) {}

EventStream::~EventStream() = default;

void EventStream::start(std::function<void()> connected,
                        std::function<void(const std::string&)> request) {
  connected_ = std::move(connected);
  request_ = std::move(request);
  connect();
}

void EventStream::send(Delivery delivery) {
  if (!isConnected()) {
    throw std::system_error(std::make_error_code(std::errc::not_connected));
  }
  if (connection_->waitingBytes + delivery.bytes.size() > kMostWaiting) {
    throw std::system_error(std::make_error_code(std::errc::no_buffer_space));
  }
  connection_->waitingBytes += delivery.bytes.size();
  connection_->waiting.push_back(std::move(delivery));
  if (!connection_->writing) {
    write();
  }
}

void EventStream::disconnect() {
  close();
  if (state_ != State::Away) {
    state_ = State::Away;
    log_.event(fmt::format("staying away from {}", peer()));
  }
}

void EventStream::reconnect() {
  close();
  state_ = State::Connecting;
  pause_ = kFirstPause;
  connect();
}

void EventStream::finish(std::function<void()> sent) {
  if (!isConnected()) {
    sent();
    return;
  }
  finished_ = std::move(sent);
  if (!connection_->writing) {
    endSending();
  }
  patience_.expires_after(kLongestFinish);
  patience_.async_wait([this](asio::error_code problem) {
    if (!problem) {
      finished_();
    }
  });
}

void EventStream::connect() {
  connection_ = std::make_shared<Connection>(context_);
  connection_->socket.async_connect(
      service_, [this, connection = connection_](asio::error_code problem) {
        if (connection != connection_) {
          return;
        }
        if (!problem && isToItself(connection->socket)) {
          problem = asio::error::connection_refused;
        }
        if (problem) {
          lose(fmt::format("waiting for {}: {}", peer(), problem.message()));
        } else {
          established();
        }
      });
}

void EventStream::established() {
  // Faults are about pieces: each send has to leave as a packet of its own.
  asio::error_code ignored;
  connection_->socket.set_option(tcp::no_delay(true), ignored);
  connection_->socket.non_blocking(true, ignored);
  connection_->since = Clock::now();
  state_ = State::Connected;
  log_.event(fmt::format("connected to {}", peer()));
  read();
  connected_();
}

void EventStream::read() {
  connection_->socket.async_read_some(
      asio::buffer(connection_->area),
      [this, connection = connection_](asio::error_code problem, std::size_t count) {
        if (connection == connection_) {
          received(problem, count);
        }
      });
}

void EventStream::received(asio::error_code problem, std::size_t count) {
  if (problem && finished_) {
    close();
    return;
  }
  if (problem) {
    lose(fmt::format("connection to {} lost: {}", peer(), problem.message()));
    return;
  }
  if (finished_) {
    read();
    return;
  }
  const ConnectionPointer connection = connection_;
  for (const std::string& document :
       connection->scanner.feed(std::string_view(connection->area.data(), count))) {
    request_(document);
    if (connection != connection_) {
      return;
    }
  }
  if (connection->scanner.pendingSize() > kLargestRequest) {
    lose(fmt::format("connection to {} lost: a request larger than 1 MiB", peer()));
    return;
  }
  read();
}

// A circle, but no recursion: the system calls the handlers later.
// NOLINTBEGIN(misc-no-recursion)
void EventStream::write() {
  Connection& connection = *connection_;
  while (!connection.waiting.empty()) {
    const Delivery& first = connection.waiting.front();
    if (connection.sent < first.bytes.size()) {
      connection.writing = !writePiece(first);
      if (connection.writing) {
        return;
      }
      continue;
    }
    const Delivery::End end = first.end;
    connection.waitingBytes -= first.bytes.size();
    connection.sent = 0;
    connection.waiting.pop_front();
    if (end != Delivery::End::Hold) {
      if (end == Delivery::End::Reset) {
        reset();
      }
      lose(fmt::format("connection to {} ended on purpose", peer()));
      return;
    }
  }
  connection.writing = false; // also when this was the turn after a pause
  if (finished_) {
    endSending();
  }
}

/// True when the next piece may follow; otherwise `write` is called when it may.
bool EventStream::writePiece(const Delivery& delivery) {
  Connection& connection = *connection_;
  const std::size_t left = delivery.bytes.size() - connection.sent;
  const std::size_t size = delivery.pieceSize == 0 ? left : std::min(left, delivery.pieceSize);
  const asio::const_buffer piece = asio::buffer(delivery.bytes.data() + connection.sent, size);
  // At once, if the system takes it: whoever sends and then disconnects has sent.
  asio::error_code problem;
  connection.sent += connection.socket.write_some(piece, problem);
  if (problem) {
    connection.socket.async_write_some(
        piece, [this, connection = connection_](asio::error_code failure, std::size_t count) {
          if (connection != connection_) {
            return;
          }
          if (failure) {
            lose(fmt::format("connection to {} lost: {}", peer(), failure.message()));
            return;
          }
          connection->sent += count;
          write();
        });
    return false;
  }
  if (delivery.between.count() == 0) {
    return true;
  }
  connection.pace.expires_after(delivery.between);
  connection.pace.async_wait([this, connection = connection_](asio::error_code stopped) {
    if (!stopped && connection == connection_) {
      write();
    }
  });
  return false;
}
// NOLINTEND(misc-no-recursion)

/// Then waits for the service to close. Closing at once, with a request unread, would reset the
/// connection, and what the service has not read by then would be lost.
void EventStream::endSending() {
  asio::error_code ignored;
  connection_->socket.shutdown(tcp::socket::shutdown_send, ignored);
}

void EventStream::reset() {
  asio::error_code ignored;
  connection_->socket.set_option(asio::socket_base::linger(true, 0), ignored);
}

void EventStream::close() {
  retry_.cancel();
  if (connection_) {
    asio::error_code ignored;
    connection_->socket.close(ignored);
    connection_->pace.cancel();
    connection_.reset();
  }
  if (finished_) {
    finished_();
  }
}

void EventStream::lose(const std::string& line) {
  // A connection that did not last does not shorten the pause: the next may not last either.
  if (isConnected() && Clock::now() - connection_->since >= kLongestPause) {
    pause_ = kFirstPause;
  }
  close();
  if (state_ != State::Waiting) {
    state_ = State::Waiting;
    log_.event(line);
  }
  retry_.expires_after(pause_);
  retry_.async_wait([this](asio::error_code problem) {
    // Cancelled too late, it may come after another attempt has begun.
    if (!problem && state_ == State::Waiting && !connection_) {
      connect();
    }
  });
  pause_ = std::min(pause_ * 2, kLongestPause);
}

std::string EventStream::peer() const {
  return fmt::format("127.0.0.1:{}", service_.port());
}

} // namespace till
