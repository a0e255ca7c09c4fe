#pragma once

#include "Cim.h"
#include "ComObject.h"

#include <wbemprov.h>
#include <wrl/client.h>

#include <memory>
#include <mutex>
#include <string>

namespace wmi_host {

/// What both registrations check before anything is registered; sets the repository.
HRESULT checkRegistration(LONG flags, LPCWSTR scope, LPCWSTR registration,
                          std::shared_ptr<const Repository>& repository);

/// The decoupled registrar. Any thread.
class Registrar final : public ComObject<IWbemDecoupledRegistrar> {
public:
  Registrar();
  HRESULT STDMETHODCALLTYPE Register(LONG flags, IWbemContext* context, LPCWSTR user,
                                     LPCWSTR locale, LPCWSTR scope, LPCWSTR registration,
                                     IUnknown* provider) noexcept override;
  HRESULT STDMETHODCALLTYPE UnRegister() noexcept override;

private:
  ~Registrar() override;
  std::mutex mutex_;
  bool isRegistered_ = false;
};

/// The decoupled basic event provider. Any thread. Its sink may outlive it and then takes nothing.
class EventRegistrar final : public ComObject<IWbemDecoupledBasicEventProvider> {
public:
  EventRegistrar();
  HRESULT STDMETHODCALLTYPE Register(LONG flags, IWbemContext* context, LPCWSTR user,
                                     LPCWSTR locale, LPCWSTR scope, LPCWSTR registration,
                                     IUnknown* provider) noexcept override;
  HRESULT STDMETHODCALLTYPE UnRegister() noexcept override;
  HRESULT STDMETHODCALLTYPE GetSink(LONG flags, IWbemContext* context,
                                    IWbemObjectSink** sink) noexcept override;
  HRESULT STDMETHODCALLTYPE GetService(LONG flags, IWbemContext* context,
                                       IWbemServices** service) noexcept override;

  /// Shared with the sinks handed out.
  struct Registration {
    std::wstring name;
    std::shared_ptr<const Repository> repository;
    std::atomic<bool> isActive = true;
  };

private:
  ~EventRegistrar() override;
  void* findOther(REFIID iid) noexcept override;
  std::mutex mutex_;
  std::shared_ptr<Registration> registration_; // null while unregistered
};

} // namespace wmi_host
