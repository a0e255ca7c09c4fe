#include "Services.h"

#include "ClassObject.h"
#include "MofReader.h"
#include "Settings.h"
#include "Threads.h"
#include "Wql.h"
#include "win/Automation.h"

#include <cstdio>
#include <stdexcept>
#include <thread>

namespace wmi_host {
namespace {

constexpr auto kResubscribe = std::chrono::milliseconds(200);

/// The text up to the first null character: Wine's wmic passes BSTRs that are longer.
std::wstring textOf(const BSTR text) {
  return text != nullptr ? text : L"";
}

/// Sends a request to the provider's process, and calls `take` for each object. Returns the status.
HRESULT request(Results& results, const Repository& repository, wire::Kind kind,
                const std::wstring& argument, const std::function<void(Object)>& take) {
  std::shared_ptr<Connection> connection = Connection::toProvider();
  if (!connection) {
    return wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE);
  }
  if (!results.setConnection(connection)) {
    return wbemResult(WBEM_E_CALL_CANCELLED);
  }
  HRESULT status = wbemResult(WBEM_E_PROVIDER_FAILURE); // if the process ends meanwhile
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

/// The class and its derived classes.
std::vector<ClassPointer> withDerived(const Repository& repository, const ClassPointer& type) {
  std::vector<ClassPointer> classes = repository.derivedFrom(type->name);
  classes.insert(classes.begin(), type);
  return classes;
}

/// The instances of `top` and of its derived classes. Each concrete dynamic class is one request.
HRESULT collect(Results& results, const Repository& repository, const ClassPointer& top,
                const std::function<void(Object)>& take) {
  for (const ClassPointer& type : withDerived(repository, top)) {
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
  // The instance may belong to a derived class.
  HRESULT status = wbemResult(WBEM_E_NOT_FOUND);
  for (const ClassPointer& candidate : withDerived(repository, type)) {
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

/// Runs the operation; an exception becomes a failure.
void run(const std::function<HRESULT(Results&)>& operation, Results& results) noexcept {
  results.finish(comBoundary([&] { return operation(results); }));
}

} // namespace

std::shared_ptr<const Repository> loadRepository() noexcept {
  try {
    Repository repository = systemRepository();
    for (const std::wstring& path : settings::list(L"Mof")) {
      readMofFile(repository, path, win::narrow(path));
    }
    return std::make_shared<const Repository>(std::move(repository));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wmi_host: %s\n", error.what());
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
  *result = new Enumerator(owner(std::move(results)), (flags & WBEM_FLAG_FORWARD_ONLY) != 0);
  return wbemResult(WBEM_S_NO_ERROR);
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
  // The subscription waits while there is no provider's process, and reconnects to the next one.
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
    return wbemResult(WBEM_S_NO_ERROR);
  };
  return wbemResult(WBEM_S_NO_ERROR);
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
    HRESULT status = fetch(results, *repository_, textOf(path));
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

HRESULT Services::CreateInstanceEnum(const BSTR className, LONG flags, IWbemContext*,
                                     IEnumWbemClassObject** result) noexcept {
  return comBoundary([&] {
    return enumerate(
        flags,
        [repository = repository_, name = textOf(className)](Results& results) {
          ClassPointer type = repository->findClass(name);
          return type ? collect(results, *repository, type,
                                [&](Object object) { results.add(std::move(object)); })
                      : wbemResult(WBEM_E_INVALID_CLASS);
        },
        result);
  });
}

HRESULT Services::ExecQuery(const BSTR language, const BSTR text, LONG flags, IWbemContext*,
                            IEnumWbemClassObject** result) noexcept {
  return comBoundary([&] {
    return enumerate(
        flags,
        [repository = repository_, isWql = sameName(textOf(language), L"WQL"),
         query = parseQuery(textOf(text))](Results& results) {
          if (!isWql || !query) {
            return wbemResult(isWql ? WBEM_E_INVALID_QUERY : WBEM_E_INVALID_QUERY_TYPE);
          }
          ClassPointer type = repository->findClass(query->className);
          if (!type || !query->fits(*type)) {
            return wbemResult(type ? WBEM_E_INVALID_QUERY : WBEM_E_INVALID_CLASS);
          }
          return collect(results, *repository, type, [&](const Object& object) {
            if (query->matches(object)) {
              results.add(query->project(object));
            }
          });
        },
        result);
  });
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
    std::shared_ptr<const Repository> repository = loadRepository();
    if (!repository) {
      return wbemResult(WBEM_E_CRITICAL_ERROR);
    }
    *result = new Services(std::move(repository));
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

} // namespace wmi_host
