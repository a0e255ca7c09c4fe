#include "till/RequestServer.h"

#include "till/Frame.h"

#include <fmt/format.h>

#include <array>
#include <string>

namespace till {

using asio::ip::tcp;

/// One connection; keeps itself alive through the handlers that wait for it.
class RequestServer::Session : public std::enable_shared_from_this<Session> {
public:
  Session(tcp::socket socket, std::chrono::milliseconds timeout, Till& till,
          std::shared_ptr<std::size_t> connections)
      : socket_(std::move(socket)), deadline_(socket_.get_executor()),
        pace_(socket_.get_executor()), timeout_(timeout), till_(till),
        connections_(std::move(connections)) {
    ++*connections_;
  }
  ~Session() { --*connections_; }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void start() {
    // Faults are about pieces: each send has to leave as a packet of its own.
    asio::error_code ignored;
    socket_.set_option(tcp::no_delay(true), ignored);
    closeAfter(timeout_, "no whole request in time");
    read();
  }

private:
  /// How long a connection stays after the answer for a client that does not close it.
  static constexpr std::chrono::milliseconds kLinger{1000};

  void closeAfter(std::chrono::milliseconds delay, const char* complaint) {
    deadline_.expires_after(delay);
    deadline_.async_wait([self = shared_from_this(), complaint](asio::error_code problem) {
      if (problem) {
        return;
      }
      if (complaint != nullptr) {
        self->till_.dropped(complaint);
      }
      self->close();
    });
  }

  void read() {
    socket_.async_read_some(asio::buffer(area_), [self = shared_from_this()](
                                                     asio::error_code problem, std::size_t count) {
      self->received(problem, count);
    });
  }

  void received(asio::error_code problem, std::size_t count) {
    if (problem) {
      if (problem != asio::error::operation_aborted) {
        till_.dropped(scanner_.started() ? "it ended within the request"
                                         : "it ended without a request");
      }
      close();
      return;
    }
    const std::optional<std::string> request = scanner_.feed(std::string_view(area_.data(), count));
    if (scanner_.fed() > kLargestRequest) {
      deliver(till_.refuse("larger than 1 MiB"));
    } else if (request) {
      deliver(till_.answer(*request));
    } else {
      read();
    }
  }

  void deliver(Delivery delivery) {
    deadline_.cancel();
    delivery_ = std::move(delivery);
    if (delivery_.end == Delivery::End::Reset) {
      asio::error_code ignored;
      socket_.set_option(asio::socket_base::linger(true, 0), ignored);
      close();
      return;
    }
    pace(delivery_.before);
  }

  // A circle, but no recursion: the system calls the handlers later.
  // NOLINTBEGIN(misc-no-recursion)
  void pace(std::chrono::milliseconds delay) {
    if (delay.count() == 0) {
      write();
      return;
    }
    pace_.expires_after(delay);
    pace_.async_wait([self = shared_from_this()](asio::error_code problem) {
      if (!problem) {
        self->write();
      }
    });
  }

  void write() {
    const std::size_t left = delivery_.bytes.size() - sent_;
    if (left == 0) {
      finish();
      return;
    }
    const std::size_t size = delivery_.pieceSize == 0 ? left : std::min(left, delivery_.pieceSize);
    closeAfter(timeout_, "the client does not take the answer");
    asio::async_write(socket_, asio::buffer(delivery_.bytes.data() + sent_, size),
                      [self = shared_from_this()](asio::error_code problem, std::size_t count) {
                        self->sent_ += count;
                        self->deadline_.cancel();
                        if (problem) {
                          self->close();
                        } else {
                          self->pace(self->delivery_.between);
                        }
                      });
  }
  // NOLINTEND(misc-no-recursion)

  void finish() {
    if (delivery_.end == Delivery::End::Close) {
      // Closing with unread bytes resets the connection, and the client may lose the answer: end
      // the sending side, read what is still coming, then close.
      asio::error_code ignored;
      socket_.shutdown(tcp::socket::shutdown_send, ignored);
      closeAfter(kLinger, nullptr);
    }
    drain();
  }

  void drain() {
    socket_.async_read_some(asio::buffer(area_),
                            [self = shared_from_this()](asio::error_code problem, std::size_t) {
                              if (problem) {
                                self->close();
                              } else {
                                self->drain();
                              }
                            });
  }

  void close() {
    deadline_.cancel();
    asio::error_code ignored;
    socket_.close(ignored);
  }

  tcp::socket socket_;
  asio::steady_timer deadline_;
  asio::steady_timer pace_;
  std::chrono::milliseconds timeout_;
  Till& till_;
  std::shared_ptr<std::size_t> connections_;
  std::array<char, 4096> area_{};
  FrameScanner scanner_;
  Delivery delivery_;
  std::size_t sent_ = 0;
};

RequestServer::RequestServer(asio::io_context& context, std::uint16_t port,
                             std::chrono::milliseconds requestTimeout, Till& till, Log& log)
    : acceptor_(context), pause_(context), requestTimeout_(requestTimeout), till_(till), log_(log) {
  const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), port);
  acceptor_.open(endpoint.protocol());
#ifdef _WIN32
  // Windows would let two programs share the port, and a second till would go unnoticed.
  using Exclusive = asio::detail::socket_option::boolean<SOL_SOCKET, SO_EXCLUSIVEADDRUSE>;
  acceptor_.set_option(Exclusive(true));
#else
  // Connections of an earlier run that still linger must not hold the port.
  acceptor_.set_option(tcp::acceptor::reuse_address(true));
#endif
  acceptor_.bind(endpoint);
  acceptor_.listen();
  port_ = acceptor_.local_endpoint().port();
  accept();
}

void RequestServer::accept() {
  acceptor_.async_accept([this](asio::error_code problem, tcp::socket socket) {
    if (problem == asio::error::operation_aborted) {
      return;
    }
    if (problem) {
      // Out of descriptors, most likely: trying again at once would only spin.
      log_.error(fmt::format("a connection could not be accepted: {}", problem.message()));
      pause_.expires_after(std::chrono::milliseconds(100));
      pause_.async_wait([this](asio::error_code stopped) {
        if (!stopped) {
          accept();
        }
      });
      return;
    }
    if (*connections_ >= kMostConnections) {
      till_.dropped("too many at once");
    } else {
      std::make_shared<Session>(std::move(socket), requestTimeout_, till_, connections_)->start();
    }
    accept();
  });
}

} // namespace till
