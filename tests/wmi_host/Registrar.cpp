#include "Registrar.h"

#include "ClassObject.h"
#include "ProviderHost.h"
#include "Services.h"
#include "Wql.h"
#include "win/Handles.h"

#include <sddl.h>

namespace wmi_host {
namespace {

/// Whether the provider's SecurityDescriptor grants this process the right 1.
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
  alignas(PRIVILEGE_SET) BYTE privileges[256];
  DWORD size = sizeof privileges;
  DWORD granted = 0;
  BOOL allowed = FALSE;
  return AccessCheck(descriptor.get(), token.get(), 1, &mapping,
                     reinterpret_cast<PRIVILEGE_SET*>(privileges), &size, &granted, &allowed) &&
         allowed;
}

/// Whether the provider is registered for events of the class or of one of its superclasses.
bool mayPublish(const Registration& registration, const Class& type) {
  for (const Object* entry : registration.entries()) {
    const Value* queries = entry->find(L"EventQueryList");
    if (queries == nullptr) {
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

class EventSink final : public ComObject<IWbemObjectSink> {
public:
  explicit EventSink(std::shared_ptr<Registration> registration)
      : registration_(std::move(registration)) {}

  HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) noexcept override {
    return comBoundary([&] {
      if (!registration_->isActive) {
        return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
      }
      if (HRESULT failed = settings::failure(L"IndicateEvent"); FAILED(failed)) {
        return failed;
      }
      if (count <= 0 || objects == nullptr) {
        counters::addViolation(L"Indicate without events");
        return wbemResult(WBEM_E_INVALID_PARAMETER);
      }
      for (LONG i = 0; i < count; ++i) {
        const ClassObject* known = ClassObject::from(objects[i]);
        if (known == nullptr || !known->object().isInstance ||
            !mayPublish(*registration_, *known->object().type)) {
          counters::addViolation(L"Indicate of something that is no registered event");
          return wbemResult(WBEM_E_INVALID_OBJECT);
        }
        ProviderHost::instance().publishEvent(known->object());
      }
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }
  HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT, BSTR, IWbemClassObject*) noexcept override {
    return wbemResult(WBEM_S_NO_ERROR);
  }

private:
  ~EventSink() override = default;
  const LiveCount live_{liveCounts.sinks};
  const std::shared_ptr<Registration> registration_;
};

} // namespace

std::vector<const Object*> Registration::entries() const {
  std::vector<const Object*> found;
  for (const Object& entry : repository->instances()) {
    std::optional<ObjectPath> provider = parsePath(entry.text(L"provider"));
    if (provider && provider->keys.size() == 1 && provider->keys[0].second == Scalar(name)) {
      found.push_back(&entry);
    }
  }
  return found;
}

HRESULT makeRegistration(LONG flags, LPCWSTR scope, LPCWSTR name,
                         std::shared_ptr<Registration>& result) {
  if (flags != 0 || scope == nullptr || name == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  if (!isServedNamespace(scope)) {
    return wbemResult(WBEM_E_INVALID_NAMESPACE);
  }
  std::shared_ptr<const Repository> repository = loadRepository();
  if (!repository) {
    return wbemResult(WBEM_E_CRITICAL_ERROR);
  }
  for (const Object& instance : repository->instances()) {
    if (!sameName(instance.type->name, L"__Win32Provider") ||
        !sameName(instance.text(L"Name"), name)) {
      continue;
    }
    if (!sameName(instance.text(L"HostingModel").substr(0, 13), L"Decoupled:Com")) {
      return wbemResult(WBEM_E_INVALID_PROVIDER_REGISTRATION);
    }
    if (!mayRegister(instance.text(L"SecurityDescriptor"))) {
      return wbemResult(WBEM_E_ACCESS_DENIED);
    }
    result = std::make_shared<Registration>();
    result->name = name;
    result->repository = std::move(repository);
    return wbemResult(WBEM_S_NO_ERROR);
  }
  return wbemResult(WBEM_E_PROVIDER_NOT_FOUND);
}

HRESULT Registrar::activate(const std::shared_ptr<Registration>& registration, IUnknown* provider) {
  return provider != nullptr ? ProviderHost::instance().registerProvider(registration, provider)
                             : wbemResult(WBEM_E_INVALID_PARAMETER);
}

void Registrar::deactivate() {
  ProviderHost::instance().unregisterProvider();
}

void* EventRegistrar::findOther(REFIID iid) noexcept {
  return iid == __uuidof(IWbemDecoupledRegistrar) ? static_cast<IWbemDecoupledRegistrar*>(this)
                                                  : nullptr;
}

HRESULT EventRegistrar::activate(const std::shared_ptr<Registration>&, IUnknown*) {
  ProviderHost::instance().registerEvents();
  return wbemResult(WBEM_S_NO_ERROR);
}

void EventRegistrar::deactivate() {
  ProviderHost::instance().unregisterEvents();
}

template <class Interface, class Make>
HRESULT EventRegistrar::whileRegistered(const wchar_t* failureSwitch, LONG flags,
                                        Interface** result, Make make) {
  return comBoundary([&] {
    if (flags != 0 || result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *result = nullptr;
    if (HRESULT failed = settings::failure(failureSwitch); FAILED(failed)) {
      return failed;
    }
    const std::scoped_lock lock(mutex_);
    if (!registration_) {
      return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
    }
    *result = make();
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT EventRegistrar::GetSink(LONG flags, IWbemContext*, IWbemObjectSink** sink) noexcept {
  return whileRegistered(L"GetSink", flags, sink, [&] { return new EventSink(registration_); });
}

HRESULT EventRegistrar::GetService(LONG flags, IWbemContext*, IWbemServices** service) noexcept {
  return whileRegistered(L"GetService", flags, service,
                         [&] { return new Services(registration_->repository); });
}

} // namespace wmi_host
