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

namespace proxy {

/// The proxy strategy's event socket server. Device servers connect to it; each connection's stream
/// is split into event documents, which are handed to one consumer, one at a time. It also sends
/// text to every connected device server.
///
/// Threads: startListening, port, stop, take and release on the consumer's, the event thread;
/// deleteClient on the client's receive thread; the rest on any. One thread accepts and one per
/// client receives; `stop` ends them. It may run while another thread waits in `take`, which keeps
/// waiting across a stop and a new start.
/// Limits: a client whose incomplete document exceeds PendingLimits::perConnection is dropped, and
/// so is one that PendingTexts selects, each with a trace line. Memory may reach twice the limits,
/// since buffers grow by doubling. Data that the consumer does not keep up with stays in the
/// connection.
/// Errors: traced where a line exists; other socket errors are ignored.
class TCPServer {
public:
  /// Keeps Winsock started while it lives; the last one to be destroyed closes all sockets. One per
  /// period of listening, not per client: Wine 8 counts the starts without a lock, and with many
  /// short-lived clients it lost a count and closed the listening socket.
  class Winsock {
  public:
    Winsock() noexcept;
    Winsock(const Winsock&) = delete;
    Winsock& operator=(const Winsock&) = delete;
    ~Winsock();

  private:
    bool started_;
  };

  /// A connected device server. The socket is closed with the last reference.
  struct Client {
    /// Takes ownership of the socket and makes it non-blocking; throws std::system_error.
    Client(win::Socket accepted, std::shared_ptr<const Winsock> started);

    const std::shared_ptr<const Winsock> winsock; ///< outlives the socket
    win::Socket socket;
    win::Handle readable; ///< set when data has arrived or the peer has closed
    win::Handle ended;    ///< set to end the receive thread, whatever it waits for
    std::string text;     ///< last received text; used by the receive thread only
  };
  using ClientPointer = std::shared_ptr<Client>;

  /// The process's server: created on first use, never destroyed.
  static TCPServer& instance();

  /// Throws std::system_error.
  explicit TCPServer(PendingLimits limits = {});
  TCPServer(const TCPServer&) = delete;
  TCPServer& operator=(const TCPServer&) = delete;
  /// Stops the server. Used by tests only.
  ~TCPServer();

  /// Listens on the configured address; port 0: chosen by the platform. Returns 0; 0xFFFFFFFF on
  /// failure, which may be retried, and when already listening.
  std::uint32_t startListening(std::uint16_t port);
  /// Ends the threads, closes all sockets and releases Winsock. Returns the result of closing the
  /// listening socket; 0 if it was not listening.
  int stop();
  /// The listening port; 0 if not listening.
  std::uint16_t port() const noexcept;

  /// Hands over a document; waits until the consumer takes it. False if client.ended is set first.
  bool put(std::string document, const Client& client) noexcept;
  std::string take() { return handOff_.take(); }
  void release() noexcept { handOff_.release(); }

  /// Sends `text` up to its first NUL to each client, in order of acceptance. Does not block: a
  /// client that does not read loses what its connection cannot buffer.
  void sendToClients(const std::string& text);

  void addClient(ClientPointer client);
  /// Does nothing for an unknown socket.
  void deleteClient(SOCKET socket);

private:
  /// A thread-safe list: adding and deleting hold different locks, and sending holds neither.
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

  /// Counts the receive threads. Shared with them, since the last one may end after the server.
  class Receivers {
  public:
    void begin();
    void end();
    void waitForAll();

  private:
    std::mutex mutex_;
    std::condition_variable allEnded_;
    std::size_t count_ = 0;
  };

  std::unique_ptr<Listening> open(std::uint16_t port);
  bool startAccepting(Listening& listening) noexcept;
  void acceptClients(SOCKET listener, const std::shared_ptr<const Winsock>& winsock) noexcept;
  win::Socket accept(SOCKET listener) noexcept;
  void registerClient(const ClientPointer& client);
  void startReceiving(const ClientPointer& client);
  void serve(const ClientPointer& client) noexcept;
  void receiveDocuments(Client& client);
  static int receive(const Client& client, char* buffer, int size) noexcept;
  static void waitUntilReadable(const Client& client) noexcept;
  bool isStopping() const noexcept;

  DocumentHandOff handOff_;
  win::Handle stopping_;   // set while stopped; ends the accept thread's waits
  std::mutex registering_; // held from starting a client's thread until the client is in the list
  std::mutex adding_;      // held by addClient
  std::mutex deleting_;    // held by deleteClient
  PendingTexts pending_;
  ClientList clients_;
  std::unique_ptr<Listening> listening_; // used by the consumer only
  const std::shared_ptr<Receivers> receivers_ = std::make_shared<Receivers>();
};

} // namespace proxy
