#include "service/WmiRegistration.h"

#include "provider/CProvider_IWbemServices.h"
#include "service/EventThread.h"
#include "trace/UPOSLog.h"
#include "win/Boundary.h"
#include "win/Handles.h"

#include <wrl/client.h>

#include <memory>
#include <new>

using Microsoft::WRL::ComPtr;
using trace::UPOSLog;

namespace service {

namespace {

constexpr const wchar_t* kNamespace = L"root\\cimv2";
constexpr const wchar_t* kRegistration = L"QuillmonService";

// The provider object, owned by the registrar; null while none is registered.
CProvider_IWbemServices* provider = nullptr;

HRESULT registerProvider(IWbemDecoupledRegistrar& registrar) {
  provider = new (std::nothrow) CProvider_IWbemServices;
  if (provider == nullptr) {
    return S_OK; // by design: events are forwarded without the provider
  }
  provider->AddRef();
  ComPtr<IUnknown> unknown;
  HRESULT result = provider->QueryInterface(IID_IUnknown, &unknown);
  if (SUCCEEDED(result)) {
    result =
        registrar.Register(0, nullptr, nullptr, nullptr, kNamespace, kRegistration, unknown.Get());
  }
  unknown.Reset();
  provider->Release();
  if (FAILED(result)) {
    provider = nullptr; // Release has deleted it
  }
  return result;
}

HRESULT startEventThread(IWbemDecoupledBasicEventProvider& eventProvider, IWbemServices& services,
                         IWbemObjectSink& sink) {
  std::unique_ptr<EventThreadContext> context(new (std::nothrow) EventThreadContext);
  if (!context) {
    return win::wbemResult(WBEM_E_OUT_OF_MEMORY);
  }
  context->services = &services;
  context->sink = &sink;
  context->eventProvider = &eventProvider;
  services.AddRef();
  sink.AddRef();
  eventProvider.AddRef();
  const win::Handle thread(CreateThread(nullptr, 0, EventThread, context.get(), 0, nullptr));
  if (!thread) {
    services.Release();
    sink.Release();
    eventProvider.Release();
    return win::wbemResult(WBEM_E_FAILED);
  }
  static_cast<void>(context.release()); // owned by the thread
  return S_OK;
}

HRESULT startEvents(IWbemDecoupledBasicEventProvider& eventProvider) {
  HRESULT result =
      eventProvider.Register(0, nullptr, nullptr, nullptr, kNamespace, kRegistration, nullptr);
  if (FAILED(result)) {
    return result;
  }
  ComPtr<IWbemServices> services;
  result = eventProvider.GetService(0, nullptr, &services);
  if (FAILED(result)) {
    return result;
  }
  ComPtr<IWbemObjectSink> sink;
  result = eventProvider.GetSink(0, nullptr, &sink);
  if (FAILED(result)) {
    return result;
  }
  result = startEventThread(eventProvider, *services.Get(), *sink.Get());
  if (SUCCEEDED(result) && provider != nullptr) {
    provider->setEventSink(sink.Get());
  }
  return result;
}

void pumpMessages() {
  MSG message;
  while (GetMessageA(&message, nullptr, 0, 0) == 1) {
    TranslateMessage(&message);
    DispatchMessageA(&message);
  }
}

} // namespace

HRESULT RegisterDecoupledInstance(IWbemDecoupledRegistrar** registrar) {
  HRESULT result =
      CoCreateInstance(CLSID_WbemDecoupledRegistrar, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IWbemDecoupledRegistrar, reinterpret_cast<void**>(registrar));
  UPOSLog::trace("[RegisterDecoupledInstance] CreateInstance t_Result = %i", result);
  if (SUCCEEDED(result)) {
    result = registerProvider(**registrar);
    if (FAILED(result)) {
      (*registrar)->Release();
    }
  }
  if (FAILED(result)) {
    *registrar = nullptr;
  }
  UPOSLog::trace("[RegisterDecoupledInstance] exit t_Result = %i", result);
  return result;
}

HRESULT StartEventProvider(IWbemDecoupledBasicEventProvider** eventProvider) {
  HRESULT result = CoCreateInstance(CLSID_WbemDecoupledBasicEventProvider, nullptr,
                                    CLSCTX_INPROC_SERVER, IID_IWbemDecoupledBasicEventProvider,
                                    reinterpret_cast<void**>(eventProvider));
  if (SUCCEEDED(result)) {
    result = startEvents(**eventProvider);
    if (FAILED(result)) {
      (*eventProvider)->Release();
    }
  }
  if (FAILED(result)) {
    *eventProvider = nullptr;
  }
  return result;
}

HRESULT Process_DecoupledInstance() {
  IWbemDecoupledRegistrar* registrar = nullptr;
  IWbemDecoupledBasicEventProvider* eventProvider = nullptr;
  RegisterDecoupledInstance(&registrar); // unchecked: events are forwarded without the provider
  const HRESULT result = StartEventProvider(&eventProvider);
  if (SUCCEEDED(result)) {
    pumpMessages();
  }
  // Kept: without a registrar nothing is withdrawn. The process ends next.
  if (registrar != nullptr) {
    registrar->UnRegister();
    if (eventProvider != nullptr) {
      eventProvider->UnRegister();
    }
    registrar->Release();
    if (eventProvider != nullptr) {
      eventProvider->Release();
    }
  }
  UPOSLog::trace("[Process_DecoupledInstance] exit t_Result = %i", result);
  return result;
}

} // namespace service
