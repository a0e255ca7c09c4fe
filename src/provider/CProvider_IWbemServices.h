#pragma once

#include "win/Automation.h"
#include "win/Handles.h"

#include <windows.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <atomic>

/// The COM object that WMI calls. Implements the asynchronous enumeration and retrieval of
/// instances; all other operations return fixed codes.
///
/// Owner: COM reference counting; the count is 0 after construction. Allocate with new.
/// Threads: WMI's, in the multithreaded apartment; Initialize comes before the first request.
/// Errors: result codes and the response handler's status; no method throws.
class CProvider_IWbemServices final : public IWbemServices,
                                      public IWbemPropertyProvider,
                                      public IWbemProviderInit,
                                      public IWbemShutdown {
public:
  CProvider_IWbemServices() noexcept;
  CProvider_IWbemServices(const CProvider_IWbemServices&) = delete;
  CProvider_IWbemServices& operator=(const CProvider_IWbemServices&) = delete;

  /// Number of provider objects in this process.
  static LONG liveObjects() noexcept;

  /// Sets the sink of device events. Not reference-counted: the event thread keeps the sink alive.
  /// Called once, before the message loop.
  void setEventSink(IWbemObjectSink* sink) noexcept { eventSink_ = sink; }

  // IUnknown. IID_IWbemEventProvider gives the IWbemServices interface.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) noexcept override;
  ULONG STDMETHODCALLTYPE AddRef() noexcept override;
  ULONG STDMETHODCALLTYPE Release() noexcept override;

  // IWbemServices
  HRESULT STDMETHODCALLTYPE OpenNamespace(BSTR, LONG, IWbemContext*, IWbemServices**,
                                          IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObject(BSTR, LONG, IWbemContext*, IWbemClassObject**,
                                      IWbemCallResult**) noexcept override;
  /// Retrieves one device by its object path. Blocks like CreateInstanceEnumAsync.
  HRESULT STDMETHODCALLTYPE GetObjectAsync(BSTR objectPath, LONG flags, IWbemContext* context,
                                           IWbemObjectSink* responseHandler) noexcept override;
  HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*,
                                     IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*,
                                          IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteClass(BSTR, LONG, IWbemContext*,
                                        IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteClassAsync(BSTR, LONG, IWbemContext*,
                                             IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateClassEnum(BSTR, LONG, IWbemContext*,
                                            IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(BSTR, LONG, IWbemContext*,
                                                 IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, LONG, IWbemContext*,
                                        IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                                             IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteInstance(BSTR, LONG, IWbemContext*,
                                           IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(BSTR, LONG, IWbemContext*,
                                                IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnum(BSTR, LONG, IWbemContext*,
                                               IEnumWbemClassObject**) noexcept override;
  /// Enumerates the devices of one class. Blocks until it is admitted, at most five minutes, and
  /// until the device server has answered.
  HRESULT STDMETHODCALLTYPE
  CreateInstanceEnumAsync(BSTR className, LONG flags, IWbemContext* context,
                          IWbemObjectSink* responseHandler) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecQuery(BSTR, BSTR, LONG, IWbemContext*,
                                      IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecQueryAsync(BSTR, BSTR, LONG, IWbemContext*,
                                           IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecNotificationQuery(BSTR, BSTR, LONG, IWbemContext*,
                                                  IEnumWbemClassObject**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(BSTR, BSTR, LONG, IWbemContext*,
                                                       IWbemObjectSink*) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecMethod(BSTR, BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                       IWbemClassObject**, IWbemCallResult**) noexcept override;
  HRESULT STDMETHODCALLTYPE ExecMethodAsync(BSTR, BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                            IWbemObjectSink*) noexcept override;

  // IWbemPropertyProvider: succeeds without touching the value.
  HRESULT STDMETHODCALLTYPE GetProperty(LONG, BSTR locale, BSTR classMapping, BSTR instanceMapping,
                                        BSTR propertyMapping, VARIANT* value) noexcept override;
  HRESULT STDMETHODCALLTYPE PutProperty(LONG, BSTR locale, BSTR classMapping, BSTR instanceMapping,
                                        BSTR propertyMapping,
                                        const VARIANT* value) noexcept override;

  // IWbemProviderInit: sets up the process-wide state of the requests; may be called again.
  HRESULT STDMETHODCALLTYPE Initialize(LPWSTR user, LONG flags, LPWSTR nameSpace, LPWSTR locale,
                                       IWbemServices* namespaceServices, IWbemContext* context,
                                       IWbemProviderInitSink* initSink) noexcept override;

  // IWbemShutdown
  HRESULT STDMETHODCALLTYPE Shutdown(LONG reason, ULONG maxMilliseconds,
                                     IWbemContext* context) noexcept override;

private:
  ~CProvider_IWbemServices();

  HRESULT setUp(LPCWSTR user, LPCWSTR nameSpace, LPCWSTR locale, IWbemServices* namespaceServices,
                IWbemContext* context);
  HRESULT fetchEventClass(IWbemContext* context) noexcept;
  /// `instance` may be set even if the result says that the device was not found.
  HRESULT GetIntanceByPath(LPCWSTR objectPath, IWbemClassObject** instance,
                           IWbemContext* context) noexcept;
  void tracePathKeys(LPCWSTR objectPath) const;

  LONG volatile referenceCount_ = 0;
  std::atomic<LONG> pathParserReady_ = 0;
  CRITICAL_SECTION criticalSection_; // kept for the layout; never entered
  Microsoft::WRL::ComPtr<IWbemServices> namespaceServices_;
  Microsoft::WRL::ComPtr<IWbemClassObject> eventClass_;
  win::Handle eventHandle_;
  win::Bstr namespace_;
  win::Bstr locale_;
  win::Bstr user_;
  // Kept for the layout; always null.
  win::Bstr reservedText1_;
  win::Bstr reservedText2_;
  Microsoft::WRL::ComPtr<IUnknown> reservedInterface1_;
  Microsoft::WRL::ComPtr<IUnknown> reservedInterface2_;
  Microsoft::WRL::ComPtr<IClassFactory> pathParserFactory_;
  std::atomic<IWbemObjectSink*> eventSink_ = nullptr;
};
