#include "Services.h"

#include "ClassObject.h"
#include "MofReader.h"
#include "Settings.h"
#include "Threads.h"
#include "win/Handles.h"

#include <wrl/client.h>

#include <cstdio>
#include <stdexcept>
#include <thread>

namespace wmi_host {
namespace {

using Microsoft::WRL::ComPtr;
using win::comBoundary;

constexpr auto kResubscribe = std::chrono::milliseconds(200);

/// Up to the first null character: Wine's wmic hands over BSTRs that are longer than their text.
std::wstring textOf(const BSTR text) {
  return text != nullptr ? text : L"";
}

std::string utf8(const std::wstring& text) {
  int size = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.c_str(), -1, result.data(), size, nullptr, nullptr);
  result.resize(result.size() - 1);
  return result;
}

/// Hands a request to the provider's process and what comes back to `take`; the final status.
HRESULT request(Results& results, const Repository& repository, wire::Kind kind,
                const std::wstring& argument, const std::function<void(Object)>& take) {
  std::shared_ptr<Connection> connection = Connection::toProvider();
  if (!connection) {
    return wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE);
  }
  if (!results.setConnection(connection)) {
    return wbemResult(WBEM_E_CALL_CANCELLED);
  }
  HRESULT status =
      wbemResult(WBEM_E_PROVIDER_FAILURE); // the process ended in the middle of the request
  connection->send(kind, wire::fromText(argument));
  while (std::optional<wire::Message> message = connection->receive()) {
    if (message->kind == wire::Kind::status) {
      status = static_cast<HRESULT>(wire::toNumber(message->payload));
      break;
    }
    take(wire::toObject(message->payload, repository));
  }
  results.setConnection(nullptr);
  return status;
}

/// The instances of `top` and of what derives from it; each concrete dynamic class is one request.
HRESULT collect(Results& results, const Repository& repository, const ClassPointer& top,
                bool withDerived, const std::function<void(Object)>& take) {
  std::vector<ClassPointer> classes = {top};
  if (withDerived) {
    std::vector<ClassPointer> derived = repository.derivedFrom(top->name);
    classes.insert(classes.end(), derived.begin(), derived.end());
  }
  for (const ClassPointer& type : classes) {
    if (type->isAbstract()) {
      continue;
    }
    if (type->isDynamic()) {
      HRESULT status = request(results, repository, wire::Kind::enumerate, type->name, take);
      if (FAILED(status)) {
        return status;
      }
      continue;
    }
    for (const Object& instance : repository.instances()) {
      if (instance.type == type) {
        take(instance);
      }
    }
  }
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT fetch(Results& results, const Repository& repository, const std::wstring& text) {
  std::optional<ObjectPath> path = parsePath(text);
  if (!path) {
    return wbemResult(WBEM_E_INVALID_OBJECT_PATH);
  }
  if (!isServedNamespace(path->nameSpace)) {
    return wbemResult(WBEM_E_INVALID_NAMESPACE);
  }
  ClassPointer type = repository.findClass(path->className);
  if (!type || settings::listed(L"MissingClasses", type->name.c_str())) {
    return wbemResult(WBEM_E_NOT_FOUND);
  }
  if (path->isClass()) {
    results.add(Object::ofClass(type));
    return wbemResult(WBEM_S_NO_ERROR);
  }
  if (const Object* instance = repository.findInstance(*path)) {
    results.add(*instance);
    return wbemResult(WBEM_S_NO_ERROR);
  }
  // An instance may be of a derived class: every provider in question is asked in turn.
  std::vector<ClassPointer> classes = repository.derivedFrom(type->name);
  classes.insert(classes.begin(), type);
  HRESULT status = wbemResult(WBEM_E_NOT_FOUND);
  for (const ClassPointer& candidate : classes) {
    if (candidate->isAbstract() || !candidate->isDynamic()) {
      continue;
    }
    path->className = candidate->name;
    status = request(results, repository, wire::Kind::get, path->relative(),
                     [&](Object object) { results.add(std::move(object)); });
    if (SUCCEEDED(status)) {
      break;
    }
  }
  return status;
}

/// An exception ends an operation as a failure.
void run(const std::function<void(Results&)>& operation, Results& results) noexcept {
  HRESULT failure = comBoundary([&] {
    operation(results);
    return S_OK;
  });
  if (FAILED(failure)) {
    results.finish(failure);
  }
}

} // namespace

std::shared_ptr<const Repository> loadRepository() {
  Repository repository = systemRepository();
  for (const std::wstring& path : settings::list(L"Mof")) {
    HANDLE raw = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                             nullptr);
    if (raw == INVALID_HANDLE_VALUE) {
      throw std::runtime_error(utf8(path) + ": cannot be read");
    }
    win::Handle file(raw);
    std::string text(GetFileSize(file.get(), nullptr), '\0');
    DWORD read = 0;
    ReadFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &read, nullptr);
    text.resize(read);
    readMof(repository, text, utf8(path));
  }
  return std::make_shared<const Repository>(std::move(repository));
}

std::shared_ptr<const Repository> tryLoadRepository() noexcept {
  try {
    return loadRepository();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wmi_host: %s\n", error.what());
    std::string text = error.what();
    settings::storeCounter(L"MofError", std::wstring(text.begin(), text.end()));
    return nullptr;
  }
}

HRESULT Services::enumerate(LONG flags, Operation operation, IEnumWbemClassObject** result) {
  if (result == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  *result = nullptr;
  auto results = std::make_shared<Results>();
  if ((flags & WBEM_FLAG_RETURN_IMMEDIATELY) != 0) {
    runOnThread([results, operation = std::move(operation)] { run(operation, *results); });
  } else {
    run(operation, *results);
    if (HRESULT status = results->waitForStatus(); FAILED(status)) {
      return status;
    }
  }
  *result = new Enumerator(std::make_shared<Reading>(std::move(results)),
                           (flags & WBEM_FLAG_FORWARD_ONLY) != 0);
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT Services::deliver(IWbemObjectSink* sink, Operation operation) {
  if (sink == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  auto results = std::make_shared<Results>();
  {
    std::scoped_lock lock(mutex_);
    std::erase_if(asynchronous_, [](const auto& entry) { return entry.second.expired(); });
    asynchronous_.emplace(sink, results);
  }
  runOnThread([results, operation = std::move(operation)] { run(operation, *results); });
  runOnThread([results, held = ComPtr<IWbemObjectSink>(sink)]() mutable {
    HRESULT status = comBoundary([&] {
      HRESULT got = wbemResult(WBEM_S_NO_ERROR);
      for (std::size_t i = 0; got == wbemResult(WBEM_S_NO_ERROR); ++i) {
        std::shared_ptr<const Object> object;
        got = results->wait(i, kForever, object);
        if (got == wbemResult(WBEM_S_NO_ERROR)) {
          results->forget(i);
          ComPtr<IWbemClassObject> given = adopt<IWbemClassObject>(new ClassObject(*object));
          IWbemClassObject* one = given.Get();
          if (FAILED(held->Indicate(1, &one))) {
            results->cancel();
          }
        }
      }
      return got == wbemResult(WBEM_S_FALSE) ? wbemResult(WBEM_S_NO_ERROR) : got;
    });
    held->SetStatus(WBEM_STATUS_COMPLETE, status, nullptr, nullptr);
    held.Reset();
  });
  return wbemResult(WBEM_S_NO_ERROR);
}

Services::Operation Services::getOperation(const BSTR path) const {
  return [repository = repository_, text = textOf(path)](Results& results) {
    results.finish(fetch(results, *repository, text));
  };
}

Services::Operation Services::instancesOperation(const BSTR className, LONG flags) const {
  return [repository = repository_, name = textOf(className),
          withDerived = (flags & WBEM_FLAG_SHALLOW) == 0](Results& results) {
    ClassPointer type = repository->findClass(name);
    results.finish(type ? collect(results, *repository, type, withDerived,
                                  [&](Object object) { results.add(std::move(object)); })
                        : wbemResult(WBEM_E_INVALID_CLASS));
  };
}

Services::Operation Services::classesOperation(const BSTR superclass, LONG flags) const {
  return [repository = repository_, name = textOf(superclass),
          isShallow = (flags & WBEM_FLAG_SHALLOW) != 0](Results& results) {
    if (!name.empty() && !repository->findClass(name)) {
      results.finish(wbemResult(WBEM_E_INVALID_CLASS));
      return;
    }
    for (const ClassPointer& type : repository->derivedFrom(name)) {
      std::wstring_view above = type->superclass ? type->superclass->name : std::wstring_view();
      if (!isShallow || sameName(above, name)) {
        results.add(Object::ofClass(type));
      }
    }
    results.finish(wbemResult(WBEM_S_NO_ERROR));
  };
}

Services::Operation Services::queryOperation(const BSTR language, const BSTR text) const {
  return [repository = repository_, name = textOf(language),
          query = parseQuery(textOf(text))](Results& results) {
    if (!sameName(name, L"WQL")) {
      results.finish(wbemResult(WBEM_E_INVALID_QUERY_TYPE));
      return;
    }
    if (!query) {
      results.finish(wbemResult(WBEM_E_INVALID_QUERY));
      return;
    }
    ClassPointer type = repository->findClass(query->className);
    if (!type || !query->fits(*type)) {
      results.finish(type ? wbemResult(WBEM_E_INVALID_QUERY) : wbemResult(WBEM_E_INVALID_CLASS));
      return;
    }
    results.finish(collect(results, *repository, type, true, [&](const Object& object) {
      if (query->matches(object)) {
        results.add(query->project(object));
      }
    }));
  };
}

HRESULT Services::subscribe(const BSTR language, const BSTR text, Operation& operation) const {
  if (!sameName(textOf(language), L"WQL")) {
    return wbemResult(WBEM_E_INVALID_QUERY_TYPE);
  }
  std::optional<Query> query = parseQuery(textOf(text));
  if (!query) {
    return wbemResult(WBEM_E_UNPARSABLE_QUERY);
  }
  ClassPointer type = repository_->findClass(query->className);
  if (!type) {
    return wbemResult(WBEM_E_INVALID_CLASS);
  }
  if (!type->derivesFrom(L"__Event")) {
    return wbemResult(WBEM_E_NOT_EVENT_CLASS);
  }
  if (!query->fits(*type)) {
    return wbemResult(WBEM_E_INVALID_QUERY);
  }
  // Without a provider's process the subscription waits for one, and for the next after it ended.
  auto connect = [] {
    std::shared_ptr<Connection> connection = Connection::toProvider();
    if (connection) {
      connection->send(wire::Kind::subscribe, {});
      std::optional<wire::Message> answer = connection->receive();
      if (!answer || answer->kind != wire::Kind::status) {
        connection.reset();
      }
    }
    return connection;
  };
  operation = [repository = repository_, query = *query, connect,
               first = connect()](Results& results) {
    std::shared_ptr<Connection> connection = first;
    while (results.setConnection(connection)) {
      while (connection) {
        std::optional<wire::Message> message = connection->receive();
        if (!message) {
          break;
        }
        Object event = wire::toObject(message->payload, *repository);
        if (event.type->derivesFrom(query.className) && query.matches(event)) {
          results.add(query.project(event));
        }
      }
      std::this_thread::sleep_for(kResubscribe);
      connection = results.isFinished() ? nullptr : connect();
    }
    results.setConnection(nullptr);
  };
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT Services::OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_INVALID_NAMESPACE); // root\cimv2 has none below it here
}

HRESULT Services::CancelAsyncCall(IWbemObjectSink* sink) noexcept {
  return comBoundary([&] {
    if (sink == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::scoped_lock lock(mutex_);
    auto [first, last] = asynchronous_.equal_range(sink);
    for (auto entry = first; entry != last; ++entry) {
      if (std::shared_ptr<Results> results = entry->second.lock()) {
        results->cancel();
      }
    }
    asynchronous_.erase(first, last);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT Services::QueryObjectSink(LONG, IWbemObjectSink**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}

HRESULT Services::GetObject(const BSTR path, LONG flags, IWbemContext*, IWbemClassObject** object,
                            IWbemCallResult** callResult) noexcept {
  return comBoundary([&] {
    if (object == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *object = nullptr;
    if ((flags & WBEM_FLAG_RETURN_IMMEDIATELY) != 0 || callResult != nullptr) {
      return wbemResult(WBEM_E_NOT_SUPPORTED);
    }
    if (HRESULT failed = settings::failure(L"GetObject"); FAILED(failed)) {
      return failed;
    }
    Results results;
    run(getOperation(path), results);
    HRESULT status = results.waitForStatus();
    if (FAILED(status)) {
      return status;
    }
    std::shared_ptr<const Object> found;
    if (results.wait(0, 0, found) != wbemResult(WBEM_S_NO_ERROR)) {
      return wbemResult(WBEM_E_NOT_FOUND);
    }
    *object = new ClassObject(*found);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT Services::GetObjectAsync(const BSTR path, LONG, IWbemContext*,
                                 IWbemObjectSink* sink) noexcept {
  return comBoundary([&] { return deliver(sink, getOperation(path)); });
}

HRESULT Services::CreateClassEnum(const BSTR superclass, LONG flags, IWbemContext*,
                                  IEnumWbemClassObject** result) noexcept {
  return comBoundary([&] { return enumerate(flags, classesOperation(superclass, flags), result); });
}

HRESULT Services::CreateClassEnumAsync(const BSTR superclass, LONG flags, IWbemContext*,
                                       IWbemObjectSink* sink) noexcept {
  return comBoundary([&] { return deliver(sink, classesOperation(superclass, flags)); });
}

HRESULT Services::CreateInstanceEnum(const BSTR className, LONG flags, IWbemContext*,
                                     IEnumWbemClassObject** result) noexcept {
  return comBoundary(
      [&] { return enumerate(flags, instancesOperation(className, flags), result); });
}

HRESULT Services::CreateInstanceEnumAsync(const BSTR className, LONG flags, IWbemContext*,
                                          IWbemObjectSink* sink) noexcept {
  return comBoundary([&] { return deliver(sink, instancesOperation(className, flags)); });
}

HRESULT Services::ExecQuery(const BSTR language, const BSTR text, LONG flags, IWbemContext*,
                            IEnumWbemClassObject** result) noexcept {
  return comBoundary([&] { return enumerate(flags, queryOperation(language, text), result); });
}

HRESULT Services::ExecQueryAsync(const BSTR language, const BSTR text, LONG, IWbemContext*,
                                 IWbemObjectSink* sink) noexcept {
  return comBoundary([&] { return deliver(sink, queryOperation(language, text)); });
}

HRESULT Services::ExecNotificationQuery(const BSTR language, const BSTR text, LONG flags,
                                        IWbemContext*, IEnumWbemClassObject** result) noexcept {
  return comBoundary([&] {
    constexpr LONG kRequired = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;
    if ((flags & kRequired) != kRequired) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    Operation operation;
    HRESULT status = subscribe(language, text, operation);
    return FAILED(status) ? status : enumerate(flags, std::move(operation), result);
  });
}

HRESULT Services::ExecNotificationQueryAsync(const BSTR language, const BSTR text, LONG,
                                             IWbemContext*, IWbemObjectSink* sink) noexcept {
  return comBoundary([&] {
    Operation operation;
    HRESULT status = subscribe(language, text, operation);
    return FAILED(status) ? status : deliver(sink, std::move(operation));
  });
}

// The repository is read from MOF files and never changed through here.
HRESULT Services::PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                                   IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                             IWbemClassObject**, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT Services::ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                  IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}

HRESULT Services::QueryBlanket(IUnknown*, DWORD* authentication, DWORD* authorization,
                               OLECHAR** principal, DWORD* level, DWORD* impersonation,
                               void** identity, DWORD* capabilities) noexcept {
  return blanket::query(authentication, authorization, principal, level, impersonation, identity,
                        capabilities);
}
HRESULT Services::SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD, DWORD, void*,
                             DWORD) noexcept {
  return S_OK;
}
HRESULT Services::CopyProxy(IUnknown* proxy, IUnknown** copy) noexcept {
  return blanket::copy(proxy, copy);
}

HRESULT Locator::ConnectServer(const BSTR resource, const BSTR, const BSTR, const BSTR, LONG,
                               const BSTR, IWbemContext*, IWbemServices** result) noexcept {
  return comBoundary([&] {
    if (result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *result = nullptr;
    if (!isServedNamespace(textOf(resource))) {
      return wbemResult(WBEM_E_INVALID_NAMESPACE);
    }
    std::shared_ptr<const Repository> repository = tryLoadRepository();
    if (!repository) {
      return wbemResult(WBEM_E_CRITICAL_ERROR);
    }
    *result = new Services(std::move(repository));
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

} // namespace wmi_host
