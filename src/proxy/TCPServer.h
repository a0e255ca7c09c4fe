#pragma once

#include "proxy/DocumentHandOff.h"
#include "proxy/PendingTexts.h"
#include "win/Handles.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// The proxy strategy's event socket server: device servers connect to it, each connection's stream
/// is cut into event documents, and the documents are handed to one consumer, one at a time. It
/// also sends text to every connected device server.
///
/// Threads: startListening, stop, take and release belong to the consumer, the event thread; the
/// rest is for any thread. One thread accepts, one per client receives; `stop` ends them all. A
/// consumer that waits in `take` stays there across stop and a new start.
/// Limits: a client whose unfinished document has become too long is dropped with a trace line; so
/// is one that PendingTexts chooses when all of them hold too much together (their buffers may have
/// twice that). What comes faster than the consumer takes it stays in the connection.
/// Errors: traced where the lines say so; results of sockets are not reported otherwise.
class TCPServer {
public:
  /// Winsock, started for as long as this lives: the last one to go closes all sockets. One for
  /// each period of listening, not for each client: Wine 8 counts the starts without a lock, and
  /// once in some ten thousand clients that came and went on threads of their own it lost one and
  /// closed the listening socket under us.
  class Winsock {
  public:
    Winsock() noexcept;
    Winsock(const Winsock&) = delete;
    Winsock& operator=(const Winsock&) = delete;
    ~Winsock();

  private:
    bool started_;
  };

  /// A connected device server. Its socket is closed when the last one lets go of the record.
  struct Client {
    /// Takes the socket over and makes it non-blocking; throws std::system_error.
    Client(win::Socket accepted, std::shared_ptr<const Winsock> started);

    const std::shared_ptr<const Winsock> winsock; ///< for whoever lets go of the socket last
    win::Socket socket;
    win::Handle readable; ///< something has come, or the peer has closed
    win::Handle ended;    ///< set: whatever its receive thread waits for, it ends
    std::string text;     ///< what was received last; the receive thread's
  };
  using ClientPointer = std::shared_ptr<Client>;

  /// The process's server: made on first use, never destroyed.
  static TCPServer& instance();

  /// Throws std::system_error when the platform has no more events.
  explicit TCPServer(PendingLimits limits = {});
  TCPServer(const TCPServer&) = delete;
  TCPServer& operator=(const TCPServer&) = delete;
  /// Stops first; for tests, the process's server lives on.
  ~TCPServer();

  /// Listens on `port` (0: one of the platform's choice) of the configured address. 0, or
  /// 0xFFFFFFFF when it cannot (then it may be tried again) or listens already.
  std::uint32_t startListening(std::uint16_t port);
  /// Ends the threads, closes all sockets and lets go of Winsock. The result of closing the
  /// listening socket; 0 when it was not listening.
  int stop();
  /// The port listened on; 0 when not listening.
  std::uint16_t port() const noexcept;

  /// A client's document: waits until the consumer takes it; false when the client's thread is to
  /// end meanwhile.
  bool put(std::string document, const Client& client) noexcept;
  std::string take() { return handOff_.take(); }
  void release() noexcept { handOff_.release(); }

  /// To each client in order of acceptance, up to the text's first NUL. Waits for none of them: a
  /// client that does not read loses what its connection does not hold.
  void sendToClients(const std::string& text);

  void addClient(ClientPointer client);
  /// Nothing for an unknown socket.
  void deleteClient(SOCKET socket);

private:
  /// The clients, safe against being changed from two critical sections and read from none.
  class ClientList {
  public:
    void append(ClientPointer client);
    /// Null for an unknown socket.
    ClientPointer find(SOCKET socket) const noexcept;
    void remove(const ClientPointer& client) noexcept;
    std::vector<ClientPointer> copy() const;
    void endAll() const noexcept;

  private:
    mutable std::mutex mutex_;
    std::vector<ClientPointer> clients_;
  };

  /// One period of listening.
  struct Listening {
    const std::shared_ptr<const Winsock> winsock = std::make_shared<const Winsock>();
    win::Socket listener;
    std::thread acceptThread;
  };

  /// How many receive threads there are; shared with them, so that the last one may end after the
  /// server.
  class Receivers {
  public:
    void begin();
    void end();
    void waitUntilGone();

  private:
    std::mutex mutex_;
    std::condition_variable gone_;
    std::size_t count_ = 0;
  };

  std::unique_ptr<Listening> open(std::uint16_t port);
  bool startAccepting(Listening& listening) noexcept;
  void acceptClients(SOCKET listener, const std::shared_ptr<const Winsock>& winsock) noexcept;
  win::Socket accept(SOCKET listener) noexcept;
  void welcome(const ClientPointer& client);
  void startReceiving(const ClientPointer& client);
  void serve(const ClientPointer& client) noexcept;
  void receiveDocuments(Client& client);
  static int receive(const Client& client, char* buffer, int size) noexcept;
  static void waitUntilReadable(const Client& client) noexcept;
  bool isStopping() const noexcept;

  DocumentHandOff handOff_;
  win::Handle stopping_; // set while stopped; ends the accept thread's waits
  std::mutex welcoming_; // the accept thread's, from a client's thread to its place in the list
  std::mutex adding_;    // addClient's
  std::mutex deleting_;  // deleteClient's
  PendingTexts pending_;
  ClientList clients_;
  std::unique_ptr<Listening> listening_; // the consumer's
  const std::shared_ptr<Receivers> receivers_ = std::make_shared<Receivers>();
};
