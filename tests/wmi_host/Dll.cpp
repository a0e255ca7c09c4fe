// The DLL's exports: class objects, and the registration of the three class ids.

#include "Registrar.h"
#include "Services.h"
#include "Settings.h"

#include <winreg.h>

namespace {

using namespace wmi_host;

HMODULE module = nullptr;

/// A class id that this DLL implements.
struct Served {
  CLSID id;
  bool isNew; // false: the platform registers it, too, and gets it back
  IUnknown* (*create)();

  std::wstring key() const {
    wchar_t text[40] = {};
    StringFromGUID2(id, text, 40);
    return L"CLSID\\" + std::wstring(text);
  }
  std::wstring serverKey() const { return key() + L"\\InprocServer32"; }
};
const Served kServed[] = {
    {CLSID_WbemDecoupledRegistrar, true, []() -> IUnknown* { return new Registrar; }},
    {CLSID_WbemDecoupledBasicEventProvider, true, []() -> IUnknown* { return new EventRegistrar; }},
    {CLSID_WbemLocator, false, []() -> IUnknown* { return new Locator; }},
};

class Factory final : public ComObject<IClassFactory> {
public:
  explicit Factory(IUnknown* (*create)()) : create_(create) {}

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid,
                                           void** result) noexcept override {
    if (result == nullptr) {
      return E_POINTER;
    }
    *result = nullptr;
    if (outer != nullptr) {
      return CLASS_E_NOAGGREGATION;
    }
    return comBoundary([&] {
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

bool setText(const std::wstring& key, const wchar_t* name, const std::wstring& text) {
  return RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, text.c_str(),
                         static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
}

std::wstring getText(const std::wstring& key) {
  wchar_t text[MAX_PATH] = {};
  DWORD size = sizeof text;
  RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, text, &size);
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
  // The DLL's threads run until the process ends, but the last CoUninitialize unloads the DLL
  // regardless of DllCanUnloadNow.
  HMODULE pinned = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(&DllGetClassObject), &pinned);
  for (const Served& served : kServed) {
    if (served.id == id) {
      return comBoundary([&] {
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
    if (!served.isNew && settings::previousLocator().empty()) {
      settings::storePreviousLocator(getText(served.serverKey()));
    }
    if (!setText(served.serverKey(), nullptr, path) ||
        !setText(served.serverKey(), L"ThreadingModel", L"Both")) {
      return E_FAIL;
    }
  }
  return S_OK;
}

STDAPI DllUnregisterServer() {
  for (const Served& served : kServed) {
    if (served.isNew) {
      RegDeleteTreeW(HKEY_CLASSES_ROOT, served.key().c_str());
    } else if (std::wstring previous = settings::previousLocator(); !previous.empty()) {
      if (!setText(served.serverKey(), nullptr, previous)) {
        return E_FAIL;
      }
      settings::storePreviousLocator({});
    }
  }
  return S_OK;
}
