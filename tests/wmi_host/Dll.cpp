// The DLL's edge: class objects and the registration of the three class ids that it plays.

#include "Registrar.h"
#include "Services.h"
#include "Settings.h"
#include "win/Handles.h"

#include <winreg.h>

#include <array>
#include <new>

namespace {

using namespace wmi_host;

HMODULE module = nullptr;

IUnknown* newRegistrar() {
  return new Registrar;
}
IUnknown* newEventRegistrar() {
  return new EventRegistrar;
}
IUnknown* newLocator() {
  return static_cast<IWbemLocator*>(new Locator);
}

struct Served {
  GUID id;
  const wchar_t* server; // its registry key below HKEY_CLASSES_ROOT
  const wchar_t* parent; // removed with it
  IUnknown* (*create)();
};
const std::array<Served, 3> kServed = {{
    {{0x4cfc7932, 0x0f9d, 0x4bef, {0x9c, 0x32, 0x8e, 0xa2, 0xa6, 0xb5, 0x6f, 0xcb}},
     L"CLSID\\{4CFC7932-0F9D-4BEF-9C32-8EA2A6B56FCB}\\InprocServer32",
     L"CLSID\\{4CFC7932-0F9D-4BEF-9C32-8EA2A6B56FCB}",
     newRegistrar},
    {{0xf5f75737, 0x2843, 0x4f22, {0x93, 0x3d, 0xc7, 0x6a, 0x97, 0xcd, 0xa6, 0x2f}},
     L"CLSID\\{F5F75737-2843-4F22-933D-C76A97CDA62F}\\InprocServer32",
     L"CLSID\\{F5F75737-2843-4F22-933D-C76A97CDA62F}",
     newEventRegistrar},
    {{0x4590f811, 0x1d3a, 0x11d0, {0x89, 0x1f, 0x00, 0xaa, 0x00, 0x4b, 0x2e, 0x24}},
     L"CLSID\\{4590F811-1D3A-11D0-891F-00AA004B2E24}\\InprocServer32",
     nullptr, // the platform's own: given back, not removed
     newLocator},
}};

class Factory final : public ComObject<IClassFactory> {
public:
  explicit Factory(IUnknown* (*create)()) : ComObject(liveCounts.others), create_(create) {}

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid,
                                           void** result) noexcept override {
    if (result == nullptr) {
      return E_POINTER;
    }
    *result = nullptr;
    if (outer != nullptr) {
      return CLASS_E_NOAGGREGATION;
    }
    return win::comBoundary([&] {
      IUnknown* created = create_();
      HRESULT found = created->QueryInterface(iid, result);
      created->Release();
      return found;
    });
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) noexcept override { return S_OK; }

private:
  ~Factory() override = default;
  IUnknown* (*create_)();
};

HRESULT setText(const wchar_t* key, const wchar_t* name, const std::wstring& text) {
  LSTATUS status = RegSetKeyValueW(HKEY_CLASSES_ROOT, key, name, REG_SZ, text.c_str(),
                                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  return status == ERROR_SUCCESS ? S_OK : E_FAIL;
}

std::wstring getText(const wchar_t* key) {
  wchar_t text[MAX_PATH] = {};
  DWORD size = sizeof text;
  RegGetValueW(HKEY_CLASSES_ROOT, key, nullptr, RRF_RT_REG_SZ, nullptr, text, &size);
  return text;
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) {
    module = instance;
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

STDAPI DllCanUnloadNow() {
  return S_FALSE;
}

STDAPI DllGetClassObject(REFCLSID id, REFIID iid, void** result) {
  if (result == nullptr) {
    return E_POINTER;
  }
  *result = nullptr;
  // The DLL's threads run its code until the process ends, and the last CoUninitialize would unload
  // it whatever DllCanUnloadNow says.
  HMODULE pinned = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(&DllGetClassObject), &pinned);
  for (const Served& served : kServed) {
    if (served.id == id) {
      return win::comBoundary([&] {
        auto* factory = new Factory(served.create);
        HRESULT found = factory->QueryInterface(iid, result);
        factory->Release();
        return found;
      });
    }
  }
  return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllRegisterServer() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(module, path, MAX_PATH);
  for (const Served& served : kServed) {
    if (served.parent == nullptr && settings::previousLocator().empty()) {
      settings::storePreviousLocator(getText(served.server));
    }
    if (FAILED(setText(served.server, nullptr, path)) ||
        FAILED(setText(served.server, L"ThreadingModel", L"Both"))) {
      return E_FAIL;
    }
  }
  return S_OK;
}

STDAPI DllUnregisterServer() {
  for (const Served& served : kServed) {
    if (served.parent != nullptr) {
      RegDeleteTreeW(HKEY_CLASSES_ROOT, served.parent);
    } else if (std::wstring previous = settings::previousLocator(); !previous.empty()) {
      if (FAILED(setText(served.server, nullptr, previous))) {
        return E_FAIL;
      }
      settings::storePreviousLocator({});
    }
  }
  return S_OK;
}
