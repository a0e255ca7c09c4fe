#pragma once

#include "Cim.h"
#include "ComObject.h"
#include "Results.h"
#include "Wql.h"

#include <wbemcli.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace wmi_host {

/// The system classes and the files of the setting Mof, read anew. Throws MofError, or
/// std::runtime_error for a file that cannot be read.
std::shared_ptr<const Repository> loadRepository();
/// As loadRepository; on an error null, with the reason on standard error and in the counter
/// MofError.
std::shared_ptr<const Repository> tryLoadRepository() noexcept;

/// root\cimv2, for a client and for a provider alike: classes come from the repository, instances
/// of dynamic classes from the process that registered their provider. Any thread.
class Services final : public ComObject<IWbemServices, IClientSecurity> {
public:
  explicit Services(std::shared_ptr<const Repository> repository)
      : ComObject(liveCounts.services), repository_(std::move(repository)) {}

  HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                          IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**,
                                      IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*,
                                     IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*,
                                          IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, LONG, IWbemContext*,
                                        IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, LONG, IWbemContext*,
                                             IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, LONG, IWbemContext*,
                                            IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, LONG, IWbemContext*,
                                                 IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, LONG, IWbemContext*,
                                        IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                                             IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR, LONG, IWbemContext*,
                                           IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR, LONG, IWbemContext*,
                                                IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR, LONG, IWbemContext*,
                                               IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*,
                                                    IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                      IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                                  IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                                       IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*,
                                       IWbemClassObject*, IWbemClassObject**,
                                       IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                            IWbemClassObject*, IWbemObjectSink*) noexcept override;

  HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*,
                                         void**, DWORD*) noexcept override;
  HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD, DWORD, void*,
                                       DWORD) noexcept override;
  HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) noexcept override;

private:
  using Operation = std::function<void(Results&)>; // adds the objects and finishes

  ~Services() override = default;

  HRESULT enumerate(LONG flags, Operation operation, IEnumWbemClassObject** result);
  HRESULT deliver(IWbemObjectSink* sink, Operation operation);
  Operation getOperation(const BSTR path) const;
  Operation instancesOperation(const BSTR className, LONG flags) const;
  Operation classesOperation(const BSTR superclass, LONG flags) const;
  Operation queryOperation(const BSTR language, const BSTR text) const;
  /// Subscribes before it returns, so that no later event is missed.
  HRESULT subscribe(const BSTR language, const BSTR text, Operation& operation) const;

  const std::shared_ptr<const Repository> repository_;
  std::mutex mutex_;
  std::multimap<IUnknown*, std::weak_ptr<Results>> asynchronous_; // by the caller's sink
};

class Locator final : public ComObject<IWbemLocator> {
public:
  Locator() : ComObject(liveCounts.others) {}
  HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR resource, const BSTR user, const BSTR password,
                                          const BSTR locale, LONG flags, const BSTR authority,
                                          IWbemContext* context,
                                          IWbemServices** result) noexcept override;

private:
  ~Locator() override = default;
};

} // namespace wmi_host
