#pragma once

#include "Cim.h"
#include "LiveCounts.h"
#include "RefusingObjects.h"
#include "Results.h"

#include <wbemcli.h>

#include <functional>
#include <memory>

namespace wmi_host {

/// Reads the system classes and the files of the setting Mof. Returns null on an error, and writes
/// the reason to standard error.
std::shared_ptr<const Repository> loadRepository() noexcept;

/// The namespace root\cimv2, for clients and providers. Classes come from the repository, instances
/// of dynamic classes from the provider's process. Any thread.
class Services final
    : public test_support::RefusingServices<ComObject<IWbemServices, IClientSecurity>> {
public:
  explicit Services(std::shared_ptr<const Repository> repository)
      : repository_(std::move(repository)) {}

  HRESULT STDMETHODCALLTYPE GetObject(const BSTR path, LONG flags, IWbemContext*,
                                      IWbemClassObject** object,
                                      IWbemCallResult** callResult) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR className, LONG flags, IWbemContext*,
                                               IEnumWbemClassObject** result) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR language, const BSTR text, LONG flags,
                                      IWbemContext*,
                                      IEnumWbemClassObject** result) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR language, const BSTR text, LONG flags,
                                                  IWbemContext*,
                                                  IEnumWbemClassObject** result) noexcept override;

  // A client may set the proxy blanket, as on WMI's own proxies. It has no effect.
  HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*,
                                         void**, DWORD*) noexcept override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD, DWORD, void*,
                                       DWORD) noexcept override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) noexcept override { return E_NOTIMPL; }

private:
  /// Adds the objects; returns the final status.
  using Operation = std::function<HRESULT(Results&)>;

  ~Services() override = default;

  static HRESULT enumerate(LONG flags, Operation operation, IEnumWbemClassObject** result);
  /// Subscribed when it returns: no later event is missed.
  HRESULT subscribe(const BSTR language, const BSTR text, Operation& operation) const;

  const LiveCount live_{liveCounts.services};
  const std::shared_ptr<const Repository> repository_;
};

class Locator final : public ComObject<IWbemLocator> {
public:
  HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR resource, const BSTR user, const BSTR password,
                                          const BSTR locale, LONG flags, const BSTR authority,
                                          IWbemContext* context,
                                          IWbemServices** result) noexcept override;

private:
  ~Locator() override = default;
};

} // namespace wmi_host
