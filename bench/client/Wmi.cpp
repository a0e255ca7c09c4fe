#include "Wmi.h"

#include "win/Automation.h"

#include <cstdio>
#include <stdexcept>

using Microsoft::WRL::ComPtr;

namespace {

constexpr LONG kStream = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;
constexpr LONG kForever = -1; // WBEM_INFINITE, which MinGW declares unsigned

void check(HRESULT result) {
  if (FAILED(result)) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
    throw std::runtime_error(text);
  }
}

} // namespace

Wmi::Wmi() {
  ComPtr<IWbemLocator> locator;
  check(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)));
  check(locator->ConnectServer(win::Bstr(L"root\\cimv2").get(), nullptr, nullptr, nullptr, 0,
                               nullptr, nullptr, &services_));
}

std::size_t Wmi::enumerate(const std::wstring& className) {
  ComPtr<IEnumWbemClassObject> objects;
  check(services_->CreateInstanceEnum(win::Bstr(className).get(), kStream, nullptr, &objects));
  for (std::size_t count = 0;; ++count) {
    ComPtr<IWbemClassObject> object;
    ULONG returned = 0;
    check(objects->Next(kForever, 1, &object, &returned));
    if (returned == 0) {
      return count;
    }
  }
}

void Wmi::get(const std::wstring& path) {
  ComPtr<IWbemClassObject> object;
  check(services_->GetObject(win::Bstr(path).get(), 0, nullptr, &object, nullptr));
}

void Wmi::watch() {
  check(services_->ExecNotificationQuery(win::Bstr(L"WQL").get(),
                                         win::Bstr(L"SELECT * FROM QuillmonEvent").get(), kStream,
                                         nullptr, &events_));
}

bool Wmi::nextEvent() {
  ComPtr<IWbemClassObject> event;
  ULONG returned = 0;
  check(events_->Next(10000, 1, &event, &returned));
  return returned == 1;
}
