// A decoupled provider to test the stand-in with: registers itself as "TestProvider", serves two
// instances of Test_Device and, on request, misbehaves. Reads commands from standard input, one a
// line, and answers each with one line; ends at the end of its input.
//
//   event TEXT     sends a Test_Event
//   unregister     withdraws both registrations

#include "RefusingServices.h"
#include "win/Automation.h"
#include "win/Boundary.h"
#include "win/Handles.h"

#include <windows.h>
#include <sddl.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

namespace {

using Microsoft::WRL::ComPtr;
using win::comBoundary;
using win::wbemResult;

constexpr GUID kRegistrar = {
    0x4cfc7932, 0x0f9d, 0x4bef, {0x9c, 0x32, 0x8e, 0xa2, 0xa6, 0xb5, 0x6f, 0xcb}};
constexpr GUID kEventProvider = {
    0xf5f75737, 0x2843, 0x4f22, {0x93, 0x3d, 0xc7, 0x6a, 0x97, 0xcd, 0xa6, 0x2f}};

HRESULT put(IWbemClassObject& object, const wchar_t* name, const std::wstring& text) {
  win::Variant value{win::Bstr(text)};
  return object.Put(name, 0, value.get(), 0);
}

HRESULT put(IWbemClassObject& object, const wchar_t* name, LONG number) {
  win::Variant value;
  value.get()->vt = VT_I4;
  value.get()->lVal = number;
  return object.Put(name, 0, value.get(), 0);
}

/// Whether a descriptor that names authenticated users and administrators lets the token in.
bool isGranted(HANDLE token) {
  win::LocalMemory descriptor;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(
      L"O:BAG:BAD:(A;;0x00000001;;;BA)(A;;0x00000001;;;AU)", SDDL_REVISION_1, descriptor.put(),
      nullptr);
  GENERIC_MAPPING mapping{};
  BYTE privileges[256];
  DWORD size = sizeof privileges;
  DWORD access = 0;
  BOOL granted = FALSE;
  return AccessCheck(descriptor.get(), token, 1, &mapping,
                     reinterpret_cast<PRIVILEGE_SET*>(privileges), &size, &access, &granted) &&
         granted;
}

/// What the calling thread may do as the client: the token's level and whether an access check
/// grants it something, or the failure to get a token.
std::wstring impersonation() {
  HRESULT result = CoImpersonateClient();
  if (FAILED(result)) {
    return L"refused " + std::to_wstring(result);
  }
  win::Handle token;
  DWORD level = 0;
  DWORD size = 0;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    DWORD error = GetLastError();
    CoRevertToSelf();
    return L"no token " + std::to_wstring(error);
  }
  GetTokenInformation(token.get(), TokenImpersonationLevel, &level, sizeof level, &size);
  std::wstring text = L"level " + std::to_wstring(level);
  text += isGranted(token.get()) ? L" granted" : L" denied";
  CoRevertToSelf();
  return text;
}

class Provider final : public RefusingServices, public IWbemProviderInit {
public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) noexcept override {
    *result = nullptr;
    if (iid == IID_IUnknown || iid == IID_IWbemServices) {
      *result = static_cast<IWbemServices*>(this);
    } else if (iid == IID_IWbemProviderInit) {
      *result = static_cast<IWbemProviderInit*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() noexcept override {
    ULONG left = --references_;
    if (left == 0) {
      delete this;
    }
    return left;
  }

  HRESULT STDMETHODCALLTYPE Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* services,
                                       IWbemContext*,
                                       IWbemProviderInitSink* sink) noexcept override {
    services_ = services;
    return sink->SetStatus(WBEM_S_INITIALIZED, 0);
  }

  /// The class's name tells how to behave.
  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR name, LONG, IWbemContext*,
                                                    IWbemObjectSink* sink) noexcept override {
    return comBoundary([&] {
      std::wstring className(name);
      if (className == L"Test_Failing") {
        sink->SetStatus(WBEM_STATUS_COMPLETE, wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE), nullptr,
                        nullptr);
        return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
      }
      if (className == L"Test_Late") {
        std::thread([this, className, held = ComPtr<IWbemObjectSink>(sink)]() mutable {
          CoInitializeEx(nullptr, COINIT_MULTITHREADED);
          Sleep(100);
          enumerate(className, *held.Get());
          held.Reset();
          CoUninitialize();
        }).detach();
        return wbemResult(WBEM_S_NO_ERROR);
      }
      if (className == L"Test_Forgetful") {
        return wbemResult(WBEM_S_NO_ERROR); // never ends what it accepted
      }
      if (className == L"Test_Endless") {
        while (!isCancelled_.exchange(false)) {
          Sleep(10);
        }
        return wbemResult(WBEM_E_CALL_CANCELLED);
      }
      return enumerate(className, *sink);
    });
  }

  HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR path, LONG, IWbemContext*,
                                           IWbemObjectSink* sink) noexcept override {
    return comBoundary([&] {
      std::wstring text(path);
      for (const wchar_t* id : {L"A", L"B"}) {
        if (text == L"Test_Device.DeviceID=\"" + std::wstring(id) + L"\"") {
          ComPtr<IWbemClassObject> object;
          HRESULT result = spawn(L"Test_Device", id, object);
          if (SUCCEEDED(result)) {
            IWbemClassObject* one = object.Get();
            result = sink->Indicate(1, &one);
          }
          sink->SetStatus(WBEM_STATUS_COMPLETE, result, nullptr, nullptr);
          return result;
        }
      }
      return wbemResult(WBEM_E_NOT_FOUND); // and no SetStatus
    });
  }

  HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) noexcept override {
    isCancelled_ = true;
    return wbemResult(WBEM_S_NO_ERROR);
  }

private:
  ~Provider() = default;

  HRESULT spawn(const std::wstring& className, const std::wstring& id,
                ComPtr<IWbemClassObject>& object) {
    ComPtr<IWbemClassObject> type;
    win::Bstr name(className);
    HRESULT result = services_->GetObject(name.get(), 0, nullptr, &type, nullptr);
    if (SUCCEEDED(result)) {
      result = type->SpawnInstance(0, &object);
    }
    if (SUCCEEDED(result)) {
      result = put(*object.Get(), L"DeviceID", id);
    }
    if (SUCCEEDED(result)) {
      result = put(*object.Get(), L"Caller", impersonation());
    }
    if (SUCCEEDED(result)) {
      result = put(*object.Get(), L"Count", id == L"A" ? 1 : -1);
    }
    return result;
  }

  HRESULT enumerate(const std::wstring& className, IWbemObjectSink& sink) {
    HRESULT result = S_OK;
    bool isStubborn = className == L"Test_Stubborn"; // a bad provider: goes on after the end
    std::wstring spawned = className == L"Test_Liar" ? L"Test_Device" : className;
    for (const wchar_t* id : {L"A", L"B"}) {
      ComPtr<IWbemClassObject> object;
      result = spawn(spawned, id, object);
      if (SUCCEEDED(result)) {
        IWbemClassObject* one = object.Get();
        result = sink.Indicate(1, &one);
      }
      if (FAILED(result)) {
        break;
      }
      if (isStubborn) {
        sink.SetStatus(WBEM_STATUS_COMPLETE, S_OK, nullptr, nullptr);
      }
    }
    sink.SetStatus(WBEM_STATUS_COMPLETE, result, nullptr, nullptr);
    return result;
  }

  std::atomic<ULONG> references_ = 1;
  std::atomic<bool> isCancelled_ = false;
  ComPtr<IWbemServices> services_;
};

std::string code(HRESULT result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
  return text;
}

HRESULT sendEvent(IWbemServices& services, IWbemObjectSink& sink, const std::string& text) {
  ComPtr<IWbemClassObject> type;
  ComPtr<IWbemClassObject> event;
  win::Bstr name(L"Test_Event");
  HRESULT result = services.GetObject(name.get(), 0, nullptr, &type, nullptr);
  if (SUCCEEDED(result)) {
    result = type->SpawnInstance(0, &event);
  }
  if (SUCCEEDED(result)) {
    result = put(*event.Get(), L"text", std::wstring(text.begin(), text.end()));
  }
  if (SUCCEEDED(result)) {
    IWbemClassObject* one = event.Get();
    result = sink.Indicate(1, &one);
  }
  return result;
}

} // namespace

int main() {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  ComPtr<IWbemDecoupledRegistrar> registrar;
  ComPtr<IWbemDecoupledBasicEventProvider> events;
  HRESULT result =
      CoCreateInstance(kRegistrar, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&registrar));
  if (SUCCEEDED(result)) {
    result = CoCreateInstance(kEventProvider, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&events));
  }
  if (FAILED(result)) {
    std::cout << "no stand-in " << code(result) << std::endl;
    return 1;
  }
  ComPtr<IWbemServices> provider;
  *provider.GetAddressOf() = new Provider; // its first reference
  result = registrar->Register(0, nullptr, nullptr, nullptr, L"root\\cimv2", L"TestProvider",
                               provider.Get());
  provider.Reset();
  HRESULT eventResult =
      events->Register(0, nullptr, nullptr, nullptr, L"root\\cimv2", L"TestProvider", nullptr);
  ComPtr<IWbemServices> services;
  ComPtr<IWbemObjectSink> sink;
  if (SUCCEEDED(eventResult)) {
    events->GetService(0, nullptr, &services);
    events->GetSink(0, nullptr, &sink);
  }
  std::cout << "registered " << code(result) << " " << code(eventResult) << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    if (line.starts_with("event ") && services && sink) {
      std::cout << code(sendEvent(*services.Get(), *sink.Get(), line.substr(6))) << std::endl;
    } else if (line == "unregister") {
      std::cout << code(registrar->UnRegister()) << " ";
      std::cout << code(events->UnRegister()) << std::endl;
    } else {
      std::cout << "unknown command" << std::endl;
    }
  }
  sink.Reset();
  services.Reset();
  registrar.Reset();
  events.Reset();
  CoUninitialize();
  return 0;
}
