#include "ProviderHost.h"

#include "CallContext.h"
#include "ClassObject.h"
#include "Loopback.h"
#include "PlatformLock.h"
#include "Services.h"
#include "Settings.h"
#include "Threads.h"
#include "Wql.h"
#include "win/Automation.h"

#include <objbase.h>

#include <algorithm>
#include <future>
#include <thread>

namespace wmi_host {

using Microsoft::WRL::ComPtr;

namespace {

std::atomic<DWORD> violations = 0;
PlatformLock storing;

std::wstring newIdentity() {
  GUID identity{};
  CoCreateGuid(&identity);
  wchar_t text[40] = {};
  StringFromGUID2(identity, text, 40);
  return text;
}

/// Stores the status that a provider sets during its Initialize.
class InitSink final : public ComObject<IWbemProviderInitSink> {
public:
  HRESULT STDMETHODCALLTYPE SetStatus(LONG given, LONG flags) noexcept override {
    if (flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    status = given;
    return wbemResult(WBEM_S_NO_ERROR);
  }

  std::atomic<LONG> status = WBEM_S_PENDING;

private:
  ~InitSink() override = default;
  const LiveCount live_{liveCounts.sinks};
};

/// Runs `body` in the call context of a client's call.
template <class Body>
HRESULT onClientCall(Body body) {
  return comBoundary([&] {
    CallScope call;
    return body();
  });
}

} // namespace

void counters::addViolation(const std::wstring& what) {
  ++violations;
  settings::storeCounter(L"LastViolation", what);
  store();
}

void counters::store() {
  std::scoped_lock lock(storing); // a later count is never overwritten by an earlier one
  settings::storeCounter(L"Initialize", initializations);
  settings::storeCounter(L"Requests", requests);
  settings::storeCounter(L"Violations", violations);
  settings::storeCounter(L"LiveObjects", static_cast<DWORD>(liveCounts.objects.load()));
  settings::storeCounter(L"LiveServices", static_cast<DWORD>(liveCounts.services.load()));
  settings::storeCounter(L"LiveSinks", static_cast<DWORD>(liveCounts.sinks.load()));
}

/// A client's request, shared by the provider's sink, the thread that calls the provider and the
/// thread that waits for the client.
struct Request {
  wire::Kind kind = wire::Kind::enumerate;
  std::wstring argument;
  std::wstring className;
  std::shared_ptr<Connection> connection;

  PlatformLock mutex;
  PlatformCondition changed;
  std::optional<HRESULT> status;
  bool isCancelled = false;
  DWORD objects = 0;
  ComPtr<IWbemServices> provider; // during the provider's call
  ComPtr<IWbemObjectSink> sink;   // likewise

  void finish(HRESULT result) {
    std::scoped_lock lock(mutex);
    if (!status) {
      status = result;
      changed.notify_all();
    }
  }

  /// Notifies the provider, which may ignore it.
  void cancel() {
    ComPtr<IWbemServices> working;
    ComPtr<IWbemObjectSink> given;
    {
      std::scoped_lock lock(mutex);
      isCancelled = true;
      working = provider;
      given = sink;
    }
    if (working && given) {
      working->CancelAsyncCall(given.Get());
    }
    finish(wbemResult(WBEM_E_CALL_CANCELLED));
  }
};

namespace {

/// The response handler that a provider gets for one request.
class ResponseSink final : public ComObject<IWbemObjectSink> {
public:
  explicit ResponseSink(std::shared_ptr<Request> request) : request_(std::move(request)) {}

  HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) noexcept override {
    return comBoundary([&] {
      if (HRESULT failed = settings::failure(L"IndicateObject"); FAILED(failed)) {
        return failed;
      }
      if (count <= 0 || objects == nullptr) {
        return violation(L"Indicate without objects", wbemResult(WBEM_E_INVALID_PARAMETER));
      }
      for (LONG i = 0; i < count; ++i) {
        HRESULT result = take(objects[i]);
        if (FAILED(result)) {
          return result;
        }
      }
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }

  HRESULT STDMETHODCALLTYPE SetStatus(LONG flags, HRESULT result, BSTR,
                                      IWbemClassObject*) noexcept override {
    return comBoundary([&] {
      if (flags != WBEM_STATUS_COMPLETE) {
        return wbemResult(WBEM_S_NO_ERROR); // progress reports are ignored
      }
      if (isComplete_.exchange(true)) {
        return violation(L"SetStatus after the end", wbemResult(WBEM_E_FAILED));
      }
      request_->finish(result);
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }

private:
  /// Without a status the provider has failed the request.
  ~ResponseSink() override { request_->finish(wbemResult(WBEM_E_PROVIDER_FAILURE)); }

  static HRESULT violation(const wchar_t* what, HRESULT result) {
    counters::addViolation(what);
    return result;
  }

  HRESULT take(IWbemClassObject* given) {
    const ClassObject* known = ClassObject::from(given);
    if (known == nullptr || !known->object().isInstance) {
      return violation(L"Indicate of something that is no instance",
                       wbemResult(WBEM_E_INVALID_OBJECT));
    }
    const Object& object = known->object();
    if (!sameName(object.type->name, request_->className)) {
      return violation(L"Indicate of an instance of another class",
                       wbemResult(WBEM_E_INVALID_OBJECT));
    }
    if (isComplete_) {
      return violation(L"Indicate after SetStatus", wbemResult(WBEM_E_FAILED));
    }
    bool cancelNow = false;
    {
      std::scoped_lock lock(request_->mutex);
      if (request_->isCancelled) {
        return wbemResult(WBEM_E_CALL_CANCELLED);
      }
      if (request_->kind == wire::Kind::get && request_->objects > 0) {
        return violation(L"Indicate of more than the one object",
                         wbemResult(WBEM_E_INVALID_OPERATION));
      }
      ++request_->objects;
      DWORD limit = settings::number(L"CancelAfter");
      cancelNow = limit != 0 && request_->objects >= limit;
    }
    if (!request_->connection->send(wire::Kind::object, wire::fromObject(object))) {
      return wbemResult(WBEM_E_CALL_CANCELLED);
    }
    if (cancelNow) {
      request_->cancel();
    }
    return wbemResult(WBEM_S_NO_ERROR);
  }

  const LiveCount live_{liveCounts.sinks};
  const std::shared_ptr<Request> request_;
  std::atomic<bool> isComplete_ = false;
};

} // namespace

ProviderHost& ProviderHost::instance() {
  // Never destroyed: its threads use it until the process ends.
  static auto* host = new ProviderHost;
  return *host;
}

HRESULT ProviderHost::registerProvider(const std::shared_ptr<const Registration>& registration,
                                       IUnknown* unknown) {
  std::scoped_lock lock(mutex_);
  if (provider_) {
    return wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED);
  }
  provider_ = std::make_shared<Provider>();
  provider_->registration = registration;
  provider_->unknown = unknown;
  startListening();
  counters::store();
  return wbemResult(WBEM_S_NO_ERROR);
}

void ProviderHost::unregisterProvider() {
  std::scoped_lock lock(mutex_);
  if (std::shared_ptr<Provider> leaving = std::move(provider_)) {
    provider_.reset();
    // A pending request holds the provider until it ends.
    if (leaving.use_count() == 1) {
      leaving->services.Reset();
      settings::storeCounter(L"ProviderReferences", leaving->unknown.Reset());
    }
    stopListeningIfUnused();
    counters::store();
  }
}

void ProviderHost::registerEvents() {
  std::scoped_lock lock(mutex_);
  ++eventRegistrations_;
  startListening();
  counters::store();
}

void ProviderHost::unregisterEvents() {
  std::scoped_lock lock(mutex_);
  --eventRegistrations_;
  stopListeningIfUnused();
  counters::store();
}

void ProviderHost::publishEvent(const Object& event) {
  std::string payload = wire::fromObject(event);
  std::set<std::shared_ptr<Connection>> subscribers;
  {
    std::scoped_lock lock(mutex_);
    subscribers = subscribers_;
  }
  for (const std::shared_ptr<Connection>& subscriber : subscribers) {
    // The connection's own thread removes it after a failure.
    subscriber->send(wire::Kind::object, payload);
  }
}

/// Called with the lock held.
void ProviderHost::startListening() {
  if (listener_ != INVALID_SOCKET) {
    return;
  }
  settings::clearCounters();
  startSockets();
  listener_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address = test_support::loopback(0);
  int size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  bind(listener_, generic, size);
  listen(listener_, SOMAXCONN);
  getsockname(listener_, generic, &size);
  identity_ = newIdentity();
  std::thread([this, listener = listener_, identity = identity_] {
    accept(listener, identity);
  }).detach();
  settings::publish({ntohs(address.sin_port), identity_});
}

/// Called with the lock held.
void ProviderHost::stopListeningIfUnused() {
  if (provider_ || eventRegistrations_ > 0) {
    return;
  }
  settings::withdraw(identity_);
  closesocket(std::exchange(listener_, INVALID_SOCKET));
  for (const std::shared_ptr<Connection>& connection : connections_) {
    connection->close();
  }
}

void ProviderHost::accept(SOCKET listener, const std::wstring& identity) {
  for (;;) {
    SOCKET socket = ::accept(listener, nullptr, nullptr);
    if (socket == INVALID_SOCKET) {
      return;
    }
    auto connection = std::make_shared<Connection>(socket);
    {
      std::scoped_lock lock(mutex_);
      if (listener_ != listener) {
        return;
      }
      connections_.insert(connection);
    }
    runOnThread([this, connection, identity] {
      comBoundary([&] {
        if (connection->send(wire::Kind::hello, wire::fromText(identity))) {
          serve(connection);
        }
        return S_OK;
      });
      {
        std::scoped_lock lock(mutex_);
        connections_.erase(connection);
        subscribers_.erase(connection);
      }
    });
  }
}

/// A connection has one request. Another thread answers it; this one detects the client's end.
void ProviderHost::serve(const std::shared_ptr<Connection>& connection) {
  std::optional<wire::Message> message = connection->receive();
  if (!message) {
    return;
  }
  if (message->kind == wire::Kind::subscribe) {
    subscribe(connection);
    return;
  }
  auto request = std::make_shared<Request>();
  request->kind = message->kind;
  request->argument = wire::toText(message->payload);
  std::optional<ObjectPath> path = parsePath(request->argument);
  request->className = path ? path->className : request->argument;
  request->connection = connection;
  auto answered = std::make_shared<std::promise<void>>();
  runOnThread([this, request, answered] {
    answer(request);
    answered->set_value();
  });
  connection->receive(); // a client sends nothing more, so this returns when it closes
  bool isOver = false;
  {
    std::scoped_lock lock(request->mutex);
    isOver = request->status.has_value();
  }
  if (!isOver) {
    request->cancel();
  }
  answered->get_future().wait();
  counters::store(); // cancelling may have held the sink longer than the answer did
}

void ProviderHost::subscribe(const std::shared_ptr<Connection>& connection) {
  {
    std::scoped_lock lock(mutex_);
    subscribers_.insert(connection);
    connection->send(wire::Kind::status, wire::fromNumber(0));
  }
  connection->receive();
}

/// Answers one request completely.
void ProviderHost::answer(const std::shared_ptr<Request>& request) {
  std::shared_ptr<Provider> provider;
  {
    std::scoped_lock lock(mutex_);
    provider = provider_;
  }
  HRESULT status = comBoundary([&] {
    ++counters::requests;
    ClassPointer type = provider ? provider->registration->repository->findClass(request->className)
                                 : ClassPointer();
    if (!type || type->text(L"provider") != provider->registration->name) {
      return wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE);
    }
    const wchar_t* const capability =
        request->kind == wire::Kind::get ? L"SupportsGet" : L"SupportsEnumeration";
    const std::vector<const Object*> entries = provider->registration->entries();
    if (std::none_of(entries.begin(), entries.end(),
                     [&](const Object* entry) { return entry->truth(capability); })) {
      return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
    }
    HRESULT result = initialize(*provider);
    return FAILED(result) ? result : call(*provider, request);
  });
  provider.reset();
  comBoundary([&] {
    counters::store();
    request->connection->send(wire::Kind::status,
                              wire::fromNumber(static_cast<std::uint32_t>(status)));
    return S_OK;
  });
}

/// Once per registration. After a failure the next request tries again.
HRESULT ProviderHost::initialize(Provider& provider) {
  std::scoped_lock lock(provider.initializing);
  if (provider.services) {
    return wbemResult(WBEM_S_NO_ERROR);
  }
  ComPtr<IWbemServices> services;
  ComPtr<IWbemProviderInit> initializer;
  if (FAILED(provider.unknown.As(&services)) || FAILED(provider.unknown.As(&initializer))) {
    return wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE);
  }
  ComPtr<InitSink> sink = adopt(new InitSink);
  ++counters::initializations;
  HRESULT result = onClientCall([&] {
    ComPtr<IWbemServices> ours =
        adopt<IWbemServices>(new Services(provider.registration->repository));
    std::wstring nameSpace = L"root\\cimv2";
    std::wstring locale = L"MS_409";
    return initializer->Initialize(nullptr, 0, nameSpace.data(), locale.data(), ours.Get(), nullptr,
                                   sink.Get());
  });
  if (FAILED(result) || sink->status != WBEM_S_INITIALIZED) {
    return wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE);
  }
  provider.services = services;
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT ProviderHost::call(Provider& provider, const std::shared_ptr<Request>& request) {
  {
    std::scoped_lock lock(request->mutex);
    if (request->isCancelled) {
      return wbemResult(WBEM_E_CALL_CANCELLED);
    }
    request->provider = provider.services;
    request->sink = adopt<IWbemObjectSink>(new ResponseSink(request));
  }
  ComPtr<IWbemObjectSink> sink = request->sink;
  HRESULT returned = onClientCall([&] {
    win::Bstr argument(request->argument);
    return request->kind == wire::Kind::get
               ? provider.services->GetObjectAsync(argument.get(), 0, nullptr, sink.Get())
               : provider.services->CreateInstanceEnumAsync(argument.get(), 0, nullptr, sink.Get());
  });
  if (FAILED(returned)) {
    request->finish(returned);
  }
  // Only the provider can hold the sink now. Its last Release ends the request, too.
  sink.Reset();
  std::unique_lock lock(request->mutex);
  ComPtr<IWbemObjectSink> last = std::move(request->sink);
  lock.unlock();
  last.Reset();
  lock.lock();
  request->changed.wait(lock, [&] { return request->status.has_value(); });
  request->provider.Reset();
  return *request->status;
}

} // namespace wmi_host
