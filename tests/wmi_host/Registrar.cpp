#include "Registrar.h"

#include "ClassObject.h"
#include "ProviderHost.h"
#include "Services.h"
#include "Settings.h"
#include "win/Handles.h"

#include <sddl.h>

#include <vector>

namespace wmi_host {
namespace {

using win::comBoundary;

/// Whether this process may register: the provider's SecurityDescriptor has to grant the right 1.
bool mayRegister(const std::wstring& descriptorText) {
  if (descriptorText.empty()) {
    return true;
  }
  win::LocalMemory descriptor;
  win::Handle process;
  win::Handle token;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(descriptorText.c_str(), SDDL_REVISION_1,
                                                            descriptor.put(), nullptr) ||
      !OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, process.put()) ||
      !DuplicateToken(process.get(), SecurityIdentification, token.put())) {
    return false;
  }
  GENERIC_MAPPING mapping{0, 0, 0x000F0001, 0x000F0001};
  std::vector<BYTE> privileges(1024);
  auto size = static_cast<DWORD>(privileges.size());
  DWORD granted = 0;
  BOOL allowed = FALSE;
  return AccessCheck(descriptor.get(), token.get(), 1, &mapping,
                     reinterpret_cast<PRIVILEGE_SET*>(privileges.data()), &size, &granted,
                     &allowed) &&
         allowed;
}

/// Whether an event provider registration of this provider names the class or one above it.
bool mayPublish(const EventRegistrar::Registration& registration, const Class& type) {
  for (const Object& entry : registration.repository->instances()) {
    std::optional<ObjectPath> target = parsePath(entry.text(L"provider"));
    const Value* queries = entry.find(L"EventQueryList");
    if (queries == nullptr || !target || target->keys.size() != 1 ||
        target->keys[0].second != Scalar(registration.name)) {
      continue;
    }
    for (const Scalar& text : queries->items) {
      std::optional<Query> query = parseQuery(std::get<std::wstring>(text));
      if (query && type.derivesFrom(query->className)) {
        return true;
      }
    }
  }
  return false;
}

/// 100-nanosecond intervals since 1601.
std::uint64_t now() {
  FILETIME time{};
  GetSystemTimeAsFileTime(&time);
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

class EventSink final : public ComObject<IWbemObjectSink> {
public:
  explicit EventSink(std::shared_ptr<EventRegistrar::Registration> registration)
      : ComObject(liveCounts.sinks), registration_(std::move(registration)) {}

  HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) noexcept override {
    return comBoundary([&] {
      if (!registration_->isActive) {
        return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
      }
      if (HRESULT failed = settings::failure(L"IndicateEvent"); FAILED(failed)) {
        return failed;
      }
      if (count <= 0 || objects == nullptr) {
        counters::countViolation(L"Indicate without events");
        return wbemResult(WBEM_E_INVALID_PARAMETER);
      }
      for (LONG i = 0; i < count; ++i) {
        const ClassObject* known = ClassObject::from(objects[i]);
        if (known == nullptr || !known->object().isInstance ||
            !mayPublish(*registration_, *known->object().type)) {
          counters::countViolation(L"Indicate of something that is no registered event");
          return wbemResult(WBEM_E_INVALID_OBJECT);
        }
        Object event = known->object();
        if (std::optional<std::size_t> index = event.type->find(L"TIME_CREATED");
            index && event.values[*index].isNull()) {
          event.values[*index] = Value(now());
        }
        ProviderHost::instance().publishEvent(event);
      }
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }
  HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT, BSTR, IWbemClassObject*) noexcept override {
    return wbemResult(WBEM_S_NO_ERROR);
  }

private:
  ~EventSink() override = default;
  std::shared_ptr<EventRegistrar::Registration> registration_;
};

} // namespace

HRESULT checkRegistration(LONG flags, LPCWSTR scope, LPCWSTR registration,
                          std::shared_ptr<const Repository>& repository) {
  if (flags != 0 || scope == nullptr || registration == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  if (!isServedNamespace(scope)) {
    return wbemResult(WBEM_E_INVALID_NAMESPACE);
  }
  repository = tryLoadRepository();
  if (!repository) {
    return wbemResult(WBEM_E_CRITICAL_ERROR);
  }
  for (const Object& instance : repository->instances()) {
    if (!sameName(instance.type->name, L"__Win32Provider") ||
        !sameName(instance.text(L"Name"), registration)) {
      continue;
    }
    if (!sameName(instance.text(L"HostingModel").substr(0, 13), L"Decoupled:Com")) {
      return wbemResult(WBEM_E_INVALID_PROVIDER_REGISTRATION);
    }
    return mayRegister(instance.text(L"SecurityDescriptor")) ? wbemResult(WBEM_S_NO_ERROR)
                                                             : wbemResult(WBEM_E_ACCESS_DENIED);
  }
  return wbemResult(WBEM_E_PROVIDER_NOT_FOUND);
}

Registrar::Registrar() : ComObject(liveCounts.others) {
  settings::setProviderProcess();
}

Registrar::~Registrar() {
  UnRegister();
}

HRESULT Registrar::Register(LONG flags, IWbemContext*, LPCWSTR, LPCWSTR, LPCWSTR scope,
                            LPCWSTR registration, IUnknown* provider) noexcept {
  return comBoundary([&] {
    std::scoped_lock lock(mutex_);
    if (isRegistered_) {
      return wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED);
    }
    if (provider == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (HRESULT failed = settings::failure(L"RegisterProvider"); FAILED(failed)) {
      return failed;
    }
    std::shared_ptr<const Repository> repository;
    HRESULT result = checkRegistration(flags, scope, registration, repository);
    if (SUCCEEDED(result)) {
      result =
          ProviderHost::instance().registerProvider(registration, provider, std::move(repository));
      isRegistered_ = SUCCEEDED(result);
    }
    return result;
  });
}

HRESULT Registrar::UnRegister() noexcept {
  return comBoundary([&] {
    std::scoped_lock lock(mutex_);
    if (!std::exchange(isRegistered_, false)) {
      return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
    }
    ProviderHost::instance().unregisterProvider();
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

EventRegistrar::EventRegistrar() : ComObject(liveCounts.others) {
  settings::setProviderProcess();
}

EventRegistrar::~EventRegistrar() {
  UnRegister();
}

void* EventRegistrar::findOther(REFIID iid) noexcept {
  return iid == __uuidof(IWbemDecoupledRegistrar) ? static_cast<IWbemDecoupledRegistrar*>(this)
                                                  : nullptr;
}

HRESULT EventRegistrar::Register(LONG flags, IWbemContext*, LPCWSTR, LPCWSTR, LPCWSTR scope,
                                 LPCWSTR registration, IUnknown*) noexcept {
  return comBoundary([&] {
    std::scoped_lock lock(mutex_);
    if (registration_) {
      return wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED);
    }
    if (HRESULT failed = settings::failure(L"RegisterEvents"); FAILED(failed)) {
      return failed;
    }
    std::shared_ptr<const Repository> repository;
    HRESULT result = checkRegistration(flags, scope, registration, repository);
    if (SUCCEEDED(result)) {
      registration_ = std::make_shared<Registration>();
      registration_->name = registration;
      registration_->repository = std::move(repository);
      ProviderHost::instance().registerEvents();
    }
    return result;
  });
}

HRESULT EventRegistrar::UnRegister() noexcept {
  return comBoundary([&] {
    std::scoped_lock lock(mutex_);
    if (!registration_) {
      return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
    }
    registration_->isActive = false;
    registration_.reset();
    ProviderHost::instance().unregisterEvents();
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT EventRegistrar::GetSink(LONG flags, IWbemContext*, IWbemObjectSink** sink) noexcept {
  return comBoundary([&] {
    if (flags != 0 || sink == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *sink = nullptr;
    if (HRESULT failed = settings::failure(L"GetSink"); FAILED(failed)) {
      return failed;
    }
    std::scoped_lock lock(mutex_);
    if (!registration_) {
      return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
    }
    *sink = new EventSink(registration_);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT EventRegistrar::GetService(LONG flags, IWbemContext*, IWbemServices** service) noexcept {
  return comBoundary([&] {
    if (flags != 0 || service == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *service = nullptr;
    if (HRESULT failed = settings::failure(L"GetService"); FAILED(failed)) {
      return failed;
    }
    std::scoped_lock lock(mutex_);
    if (!registration_) {
      return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
    }
    *service = new Services(registration_->repository);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

} // namespace wmi_host
