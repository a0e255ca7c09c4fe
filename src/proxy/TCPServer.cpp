#include "proxy/TCPServer.h"

#include "proxy/EventSplitter.h"
#include "proxy/SendToClients.h"
#include "trace/UPOSLog.h"
#include "win/Configuration.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <system_error>
#include <utility>

using trace::UPOSLog;

namespace proxy {

namespace {

constexpr std::uint32_t kFailed = 0xFFFFFFFF;
constexpr int kBacklog = 10;
constexpr int kMaxReceived = 1023;
constexpr DWORD kPauseAfterErrorMilliseconds = 1000;

win::Handle manualResetEvent(bool signalled) {
  win::Handle event(CreateEventA(nullptr, TRUE, signalled ? TRUE : FALSE, nullptr));
  if (!event) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
  return event;
}

sockaddr_in addressOf(std::uint16_t port) {
  const std::string host = configuration::readText("provider.eventSocket.IP", "127.0.0.1");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(host.c_str());
  address.sin_port = htons(port);
  return address;
}

} // namespace

void sendToClients(const std::string& text) {
  TCPServer::instance().sendToClients(text);
}

TCPServer::Winsock::Winsock() noexcept {
  WSADATA data;
  started_ = WSAStartup(MAKEWORD(1, 1), &data) == 0;
}

TCPServer::Winsock::~Winsock() {
  if (started_) {
    WSACleanup();
  }
}

TCPServer::Client::Client(win::Socket accepted, std::shared_ptr<const Winsock> started)
    : winsock(std::move(started)), socket(std::move(accepted)), readable(manualResetEvent(false)),
      ended(manualResetEvent(false)) {
  // Non-blocking, so that neither sendToClients nor stop waits for a client.
  if (WSAEventSelect(socket.get(), readable.get(), FD_READ | FD_CLOSE) != 0) {
    throw std::system_error(WSAGetLastError(), std::system_category());
  }
}

void TCPServer::ClientList::append(ClientPointer client) {
  std::scoped_lock lock(mutex_);
  clients_.push_back(std::move(client));
}

TCPServer::ClientPointer TCPServer::ClientList::find(SOCKET socket) const noexcept {
  std::scoped_lock lock(mutex_);
  const auto found = std::find_if(clients_.begin(), clients_.end(), [socket](const auto& client) {
    return client->socket.get() == socket;
  });
  return found != clients_.end() ? *found : nullptr;
}

void TCPServer::ClientList::remove(const ClientPointer& client) noexcept {
  std::scoped_lock lock(mutex_);
  std::erase(clients_, client);
}

std::vector<TCPServer::ClientPointer> TCPServer::ClientList::copy() const {
  std::scoped_lock lock(mutex_);
  return clients_;
}

void TCPServer::ClientList::endAll() const noexcept {
  std::scoped_lock lock(mutex_);
  for (const ClientPointer& client : clients_) {
    SetEvent(client->ended.get());
  }
}

TCPServer& TCPServer::instance() {
  static auto* const server = new TCPServer; // its threads may outlive main
  return *server;
}

TCPServer::TCPServer(PendingLimits limits) : stopping_(manualResetEvent(true)), pending_(limits) {}

TCPServer::~TCPServer() {
  if (listening_) {
    stop();
  }
}

void TCPServer::Receivers::begin() {
  std::scoped_lock lock(mutex_);
  ++count_;
}

void TCPServer::Receivers::end() {
  std::scoped_lock lock(mutex_);
  --count_;
  allEnded_.notify_all();
}

void TCPServer::Receivers::waitForAll() {
  std::unique_lock lock(mutex_);
  allEnded_.wait(lock, [this] { return count_ == 0; });
}

std::uint32_t TCPServer::startListening(std::uint16_t port) {
  bool opened = false;
  if (!listening_) {
    listening_ = open(port);
    opened = listening_ != nullptr;
  }
  UPOSLog::trace("Starting listening in TCPServer"); // also after a failure
  return opened ? 0 : kFailed;
}

std::unique_ptr<TCPServer::Listening> TCPServer::open(std::uint16_t port) {
  const sockaddr_in address = addressOf(port);
  auto listening = std::make_unique<Listening>();
  listening->listener.reset(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  // INADDR_NONE, an invalid address, equals the broadcast address.
  const bool bound = address.sin_addr.s_addr != INADDR_NONE &&
                     bind(listening->listener.get(), reinterpret_cast<const sockaddr*>(&address),
                          sizeof address) == 0;
  return bound && startAccepting(*listening) ? std::move(listening) : nullptr;
}

bool TCPServer::startAccepting(Listening& listening) noexcept {
  const SOCKET listener = listening.listener.get();
  if (listen(listener, kBacklog) != 0) {
    return false;
  }
  ResetEvent(stopping_.get());
  try {
    listening.acceptThread = std::thread(
        [this, listener, winsock = listening.winsock] { acceptClients(listener, winsock); });
    return true;
  } catch (...) { // no thread
    SetEvent(stopping_.get());
    return false;
  }
}

int TCPServer::stop() {
  UPOSLog::trace("Stopping TCPServer");
  if (!listening_) {
    return 0;
  }
  SetEvent(stopping_.get());
  const int result = closesocket(listening_->listener.release());
  listening_->acceptThread.join(); // no further clients
  clients_.endAll();
  receivers_->waitForAll();
  listening_.reset();
  return result;
}

std::uint16_t TCPServer::port() const noexcept {
  sockaddr_in address{};
  int size = sizeof address;
  if (!listening_ ||
      getsockname(listening_->listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return 0;
  }
  return ntohs(address.sin_port);
}

bool TCPServer::put(std::string document, const Client& client) noexcept {
  return handOff_.put(std::move(document), client.ended.get());
}

// Takes neither adding_ nor deleting_, so it does not wait while a client is added or deleted.
void TCPServer::sendToClients(const std::string& text) {
  const int length = static_cast<int>(std::strlen(text.c_str()));
  for (const ClientPointer& client : clients_.copy()) {
    UPOSLog::trace("Sending message to clients: %s", text);
    send(client->socket.get(), text.c_str(), length, 0);
  }
}

void TCPServer::addClient(ClientPointer client) {
  std::scoped_lock lock(adding_);
  UPOSLog::trace("Adding client %p", client.get());
  clients_.append(std::move(client));
}

void TCPServer::deleteClient(SOCKET socket) {
  std::scoped_lock lock(deleting_);
  if (const ClientPointer client = clients_.find(socket)) {
    UPOSLog::trace("Deleting client: %p", client.get());
    client->text.clear();
    clients_.remove(client);
  }
}

void TCPServer::acceptClients(SOCKET listener,
                              const std::shared_ptr<const Winsock>& winsock) noexcept {
  while (win::Socket accepted = accept(listener)) {
    try {
      registerClient(std::make_shared<Client>(std::move(accepted), winsock));
    } catch (...) { // out of memory or threads: only this client is closed
    }
  }
}

/// Waits for the next client; empty when the server is stopping. Closing the listening socket ends
/// the wait.
win::Socket TCPServer::accept(SOCKET listener) noexcept {
  while (!isStopping()) {
    win::Socket accepted(::accept(listener, nullptr, nullptr));
    if (accepted) {
      return accepted;
    }
    const int error = WSAGetLastError();
    // These two concern only the client that has gone; any other error may persist.
    if (error != WSAECONNRESET && error != WSAECONNABORTED) {
      WaitForSingleObject(stopping_.get(), kPauseAfterErrorMilliseconds);
    }
  }
  return {};
}

void TCPServer::registerClient(const ClientPointer& client) {
  std::scoped_lock lock(registering_);
  startReceiving(client);
  try {
    addClient(client);
  } catch (...) {
    SetEvent(client->ended.get());
    throw;
  }
}

/// Starts the client's thread. It begins to receive only when the client is in the list; otherwise
/// a client that disconnects at once would be added after its deletion.
void TCPServer::startReceiving(const ClientPointer& client) {
  receivers_->begin();
  try {
    std::thread([this, client = ClientPointer(client), receivers = receivers_]() mutable {
      { std::scoped_lock added(registering_); }
      serve(client);
      client.reset();
      receivers->end();
    }).detach();
  } catch (...) {
    receivers_->end();
    throw;
  }
}

void TCPServer::serve(const ClientPointer& client) noexcept {
  try {
    receiveDocuments(*client);
  } catch (...) { // out of memory: the client is dropped
  }
  deleteClient(client->socket.get());
}

void TCPServer::receiveDocuments(Client& client) {
  EventSplitter splitter;
  PendingTexts::Connection held(pending_, [&client] { SetEvent(client.ended.get()); });
  char buffer[kMaxReceived + 1] = {};
  while (receive(client, buffer, kMaxReceived) > 0) {
    client.text = buffer; // up to the first NUL
    UPOSLog::trace("Data received from socket: %s", client.text);
    std::vector<std::string> documents = splitter.split(client.text);
    if (splitter.pendingSize() > pending_.limits().perConnection) {
      UPOSLog::trace("Dropping client %p: document without an end after %d bytes", &client,
                     static_cast<int>(splitter.pendingSize()));
      return;
    }
    held.hold(std::accumulate(
        documents.begin(), documents.end(), splitter.pendingSize(),
        [](std::size_t sum, const std::string& document) { return sum + document.size(); }));
    for (std::string& document : documents) {
      if (put(std::move(document), client)) {
        held.markDelivered();
      }
    }
    held.hold(splitter.pendingSize());
    std::fill(std::begin(buffer), std::end(buffer), '\0');
  }
  if (held.isDropped()) {
    UPOSLog::trace("Dropping client %p: the clients' unfinished documents are too long together",
                   &client);
  }
}

/// As recv on a blocking socket; returns 0 if client.ended is set.
int TCPServer::receive(const Client& client, char* buffer, int size) noexcept {
  const SOCKET socket = client.socket.get();
  while (WaitForSingleObject(client.ended.get(), 0) != WAIT_OBJECT_0) {
    const int count = recv(socket, buffer, size, 0);
    if (count >= 0 || WSAGetLastError() != WSAEWOULDBLOCK) {
      return count;
    }
    waitUntilReadable(client);
  }
  return 0;
}

/// Returns also when client.ended is set.
void TCPServer::waitUntilReadable(const Client& client) noexcept {
  const HANDLE both[] = {client.ended.get(), client.readable.get()};
  if (WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
    WSANETWORKEVENTS events; // ignored; the call re-arms the event
    WSAEnumNetworkEvents(client.socket.get(), client.readable.get(), &events);
  }
}

bool TCPServer::isStopping() const noexcept {
  return WaitForSingleObject(stopping_.get(), 0) == WAIT_OBJECT_0;
}

} // namespace proxy
