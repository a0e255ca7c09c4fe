#pragma once

#include "Cim.h"
#include "LiveCounts.h"
#include "Settings.h"

#include <wbemprov.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace wmi_host {

/// A registered provider's name, and the repository that defines it.
struct Registration {
  std::wstring name;
  std::shared_ptr<const Repository> repository;
  std::atomic<bool> isActive = true;

  /// The instances that reference the provider: its registrations for instances and for events.
  std::vector<const Object*> entries() const;
};

/// Checks the arguments of Register, and that the repository defines the provider.
HRESULT makeRegistration(LONG flags, LPCWSTR scope, LPCWSTR name,
                         std::shared_ptr<Registration>& result);

/// Register and UnRegister of both registrars. Any thread.
template <class Interface>
class RegistrarBase : public ComObject<Interface> {
public:
  HRESULT STDMETHODCALLTYPE Register(LONG flags, IWbemContext*, LPCWSTR, LPCWSTR, LPCWSTR scope,
                                     LPCWSTR name, IUnknown* provider) noexcept final {
    return comBoundary([&] {
      const std::scoped_lock lock(mutex_);
      if (registration_) {
        return wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED);
      }
      if (HRESULT failed = settings::failure(failureSwitch_); FAILED(failed)) {
        return failed;
      }
      std::shared_ptr<Registration> made;
      HRESULT result = makeRegistration(flags, scope, name, made);
      if (SUCCEEDED(result)) {
        result = activate(made, provider);
      }
      if (SUCCEEDED(result)) {
        registration_ = std::move(made);
      }
      return result;
    });
  }

  HRESULT STDMETHODCALLTYPE UnRegister() noexcept final {
    return comBoundary([&] {
      const std::scoped_lock lock(mutex_);
      if (!registration_) {
        return wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED);
      }
      registration_->isActive = false;
      registration_.reset();
      deactivate();
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }

protected:
  explicit RegistrarBase(const wchar_t* failureSwitch) : failureSwitch_(failureSwitch) {
    settings::setProviderProcess();
  }
  virtual HRESULT activate(const std::shared_ptr<Registration>& registration,
                           IUnknown* provider) = 0;
  virtual void deactivate() = 0;

  std::mutex mutex_;
  std::shared_ptr<Registration> registration_; // null while unregistered

private:
  const wchar_t* const failureSwitch_;
};

/// The decoupled registrar.
class Registrar final : public RegistrarBase<IWbemDecoupledRegistrar> {
public:
  Registrar() : RegistrarBase(L"RegisterProvider") {}

private:
  ~Registrar() override { UnRegister(); }
  HRESULT activate(const std::shared_ptr<Registration>& registration, IUnknown* provider) override;
  void deactivate() override;
};

/// The decoupled basic event provider. Its sink refuses all events after UnRegister.
class EventRegistrar final : public RegistrarBase<IWbemDecoupledBasicEventProvider> {
public:
  EventRegistrar() : RegistrarBase(L"RegisterEvents") {}

  HRESULT STDMETHODCALLTYPE GetSink(LONG flags, IWbemContext* context,
                                    IWbemObjectSink** sink) noexcept override;
  HRESULT STDMETHODCALLTYPE GetService(LONG flags, IWbemContext* context,
                                       IWbemServices** service) noexcept override;

private:
  ~EventRegistrar() override { UnRegister(); }
  void* findOther(REFIID iid) noexcept override;
  HRESULT activate(const std::shared_ptr<Registration>& registration, IUnknown* provider) override;
  void deactivate() override;

  /// GetSink and GetService: the result of `make` while registered.
  template <class Interface, class Make>
  HRESULT whileRegistered(const wchar_t* failureSwitch, LONG flags, Interface** result, Make make);
};

} // namespace wmi_host
