#include "provider/CProvider_IWbemServices.h"

#include "provider/AccessCheck.h"
#include "provider/Admission.h"
#include "provider/ProviderState.h"
#include "trace/UPOSLog.h"
#include "win/Boundary.h"
#include "win/Configuration.h"

#include <wmiutils.h>

#include <cstdint>
#include <string>
#include <string_view>

using provider::providerState;
using trace::formatPrintf;
using trace::TraceArgument;
using trace::UPOSLog;
using win::wbemResult;

CProvider_IWbemServices::CProvider_IWbemServices() noexcept {
  InitializeCriticalSection(&criticalSection_);
  InterlockedIncrement(&providerState().liveObjects);
}

// The event class and the event handle are released last, by their members' destructors.
CProvider_IWbemServices::~CProvider_IWbemServices() {
  DeleteCriticalSection(&criticalSection_);
  user_.reset();
  locale_.reset();
  namespace_.reset();
  namespaceServices_.Reset();
  reservedInterface1_.Reset();
  reservedInterface2_.Reset();
  reservedText1_.reset();
  reservedText2_.reset();
  InterlockedDecrement(&providerState().liveObjects);
  pathParserFactory_.Reset();
}

LONG CProvider_IWbemServices::liveObjects() noexcept {
  return providerState().liveObjects;
}

HRESULT CProvider_IWbemServices::QueryInterface(REFIID iid, void** object) noexcept {
  if (object == nullptr) {
    return E_POINTER;
  }
  // Kept: IID_IWbemEventProvider gives the IWbemServices interface.
  if (iid == IID_IUnknown || iid == IID_IWbemServices || iid == IID_IWbemEventProvider) {
    *object = static_cast<IWbemServices*>(this);
  } else if (iid == IID_IWbemPropertyProvider) {
    *object = static_cast<IWbemPropertyProvider*>(this);
  } else if (iid == IID_IWbemProviderInit) {
    *object = static_cast<IWbemProviderInit*>(this);
  } else if (iid == IID_IWbemShutdown) {
    *object = static_cast<IWbemShutdown*>(this);
  } else {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG CProvider_IWbemServices::AddRef() noexcept {
  return static_cast<ULONG>(InterlockedIncrement(&referenceCount_));
}

ULONG CProvider_IWbemServices::Release() noexcept {
  const LONG count = InterlockedDecrement(&referenceCount_);
  if (count == 0) {
    delete this;
  }
  return static_cast<ULONG>(count);
}

HRESULT CProvider_IWbemServices::Initialize(LPWSTR user, LONG, LPWSTR nameSpace, LPWSTR locale,
                                            IWbemServices* namespaceServices, IWbemContext* context,
                                            IWbemProviderInitSink* initSink) noexcept {
  const HRESULT result =
      win::comBoundary([&] { return setUp(user, nameSpace, locale, namespaceServices, context); });
  // Kept: reported as initialised whatever the result; WMI gets the result from the return value.
  if (initSink != nullptr) {
    initSink->SetStatus(WBEM_S_INITIALIZED, 0);
  }
  return result;
}

HRESULT CProvider_IWbemServices::setUp(LPCWSTR user, LPCWSTR nameSpace, LPCWSTR locale,
                                       IWbemServices* namespaceServices, IWbemContext* context) {
  provider::ProviderState& state = providerState();
  state.maxQueryThreads = configuration::readInt("provider.maxQueryThreads", 1);
  const std::uint32_t limit = state.maxQueryThreads;
  const std::string line =
      formatPrintf("<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: %d *\n",
                   {TraceArgument(limit)});
  UPOSLog::trace(line);

  // Never closed: a request may still hold a slot of the previous semaphore.
  state.admissionSemaphore =
      win::leakOnPurpose(provider::createAdmissionSemaphore(static_cast<LONG>(limit)));
  // Kept: a mutex that this thread owns for ever and nothing waits for.
  win::leakOnPurpose(win::Handle(CreateMutexA(nullptr, TRUE, nullptr)));

  state.propertyTypes.fill();

  if (pathParserReady_ == 0) {
    CoGetClassObject(CLSID_WbemDefPath, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                     reinterpret_cast<void**>(pathParserFactory_.ReleaseAndGetAddressOf()));
    pathParserReady_ = 1;
  }

  namespace_.reset();
  locale_.reset();
  user_.reset();
  namespaceServices_.Reset();

  const bool impersonated = SUCCEEDED(CoImpersonateClient());
  if (impersonated && provider::threadImpersonationLevel() == 2) {
    CoRevertToSelf();
  }
  if (namespaceServices != nullptr) {
    namespaceServices_ = namespaceServices;
    if (impersonated) {
      // A null text is not a failed copy.
      const auto copy = [](win::Bstr& field, LPCWSTR text) {
        field.reset(SysAllocString(text));
        return field || text == nullptr;
      };
      static_cast<void>(copy(user_, user) && copy(locale_, locale) && copy(namespace_, nameSpace));
    }
  }

  // A second reference, never released: requests use the process-wide pointer without counting.
  if (namespaceServices != nullptr) {
    namespaceServices->AddRef();
  }
  state.namespaceServices = namespaceServices;
  namespace_.reset(SysAllocString(nameSpace));
  CoRevertToSelf();

  const HRESULT result = fetchEventClass(context);
  eventHandle_.reset(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  return eventHandle_ ? result : wbemResult(WBEM_E_OUT_OF_MEMORY);
}

HRESULT CProvider_IWbemServices::fetchEventClass(IWbemContext* context) noexcept {
  eventClass_.Reset();
  if (namespaceServices_ == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  win::Bstr name;
  name.reset(SysAllocString(L"QuillmonEvent"));
  if (!name) {
    return wbemResult(WBEM_E_OUT_OF_MEMORY);
  }
  return namespaceServices_->GetObject(name.get(), 0, context, eventClass_.GetAddressOf(), nullptr);
}

namespace {

/// GetProperty and PutProperty: two known mappings, both no-ops.
HRESULT serveProperty(BSTR propertyMapping) noexcept {
  const std::wstring_view mapping = propertyMapping != nullptr ? propertyMapping : L"";
  if (mapping == L"ExtraProperty1" || mapping == L"ExtraProperty2") {
    return WBEM_S_NO_ERROR;
  }
  return WBEM_S_NO_ERROR; // Kept: an unknown mapping succeeds too.
}

} // namespace

HRESULT CProvider_IWbemServices::GetProperty(LONG, BSTR, BSTR, BSTR, BSTR propertyMapping,
                                             VARIANT*) noexcept {
  return serveProperty(propertyMapping);
}
HRESULT CProvider_IWbemServices::PutProperty(LONG, BSTR, BSTR, BSTR, BSTR propertyMapping,
                                             const VARIANT*) noexcept {
  return serveProperty(propertyMapping);
}

HRESULT CProvider_IWbemServices::Shutdown(LONG, ULONG, IWbemContext*) noexcept {
  return WBEM_S_NO_ERROR;
}

// Operations that are not served. The mix of codes is deliberate and follows no rule.
HRESULT CProvider_IWbemServices::OpenNamespace(BSTR, LONG, IWbemContext*, IWbemServices**,
                                               IWbemCallResult**) noexcept {
  return WBEM_S_NO_ERROR;
}
HRESULT CProvider_IWbemServices::CancelAsyncCall(IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
HRESULT CProvider_IWbemServices::QueryObjectSink(LONG, IWbemObjectSink**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::GetObject(BSTR, LONG, IWbemContext*, IWbemClassObject**,
                                           IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::PutClass(IWbemClassObject*, LONG, IWbemContext*,
                                          IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::PutClassAsync(IWbemClassObject*, LONG, IWbemContext*,
                                               IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}
HRESULT CProvider_IWbemServices::DeleteClass(BSTR, LONG, IWbemContext*,
                                             IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::DeleteClassAsync(BSTR, LONG, IWbemContext*,
                                                  IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
HRESULT CProvider_IWbemServices::CreateClassEnum(BSTR, LONG, IWbemContext*,
                                                 IEnumWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::CreateClassEnumAsync(BSTR, LONG, IWbemContext*,
                                                      IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}
HRESULT CProvider_IWbemServices::PutInstance(IWbemClassObject*, LONG, IWbemContext*,
                                             IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*,
                                                  IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
HRESULT CProvider_IWbemServices::DeleteInstance(BSTR, LONG, IWbemContext*,
                                                IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::DeleteInstanceAsync(BSTR, LONG, IWbemContext*,
                                                     IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
HRESULT CProvider_IWbemServices::CreateInstanceEnum(BSTR, LONG, IWbemContext*,
                                                    IEnumWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::ExecQuery(BSTR, BSTR, LONG, IWbemContext*,
                                           IEnumWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::ExecQueryAsync(BSTR, BSTR, LONG, IWbemContext*,
                                                IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
HRESULT CProvider_IWbemServices::ExecNotificationQuery(BSTR, BSTR, LONG, IWbemContext*,
                                                       IEnumWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::ExecNotificationQueryAsync(BSTR, BSTR, LONG, IWbemContext*,
                                                            IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::ExecMethod(BSTR, BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                            IWbemClassObject**, IWbemCallResult**) noexcept {
  return wbemResult(WBEM_E_NOT_AVAILABLE);
}
HRESULT CProvider_IWbemServices::ExecMethodAsync(BSTR, BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                                 IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
}
