#include "WmiClient.h"

#include "win/Automation.h"

#include <cstdio>

namespace test_support {
namespace {

std::string hexadecimal(HRESULT code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code));
  return text;
}

} // namespace

WmiFailure::WmiFailure(const char* call, HRESULT code)
    : std::runtime_error(std::string(call) + ": " + hexadecimal(code)), result(code) {}

void check(const char* call, HRESULT result) {
  if (FAILED(result)) {
    throw WmiFailure(call, result);
  }
}

WmiClient::WmiClient() {
  Microsoft::WRL::ComPtr<IWbemLocator> locator;
  check("CoCreateInstance",
        CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)));
  check("IWbemLocator::ConnectServer",
        locator->ConnectServer(win::Bstr(L"root\\cimv2").get(), nullptr, nullptr, nullptr, 0,
                               nullptr, nullptr, &services_));
  check("CoSetProxyBlanket",
        CoSetProxyBlanket(services_.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                          RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
}

WmiClient::Object WmiClient::get(const std::wstring& path) const {
  Object object;
  check("IWbemServices::GetObject",
        services_->GetObject(win::Bstr(path).get(), 0, nullptr, &object, nullptr));
  return object;
}

WmiClient::Objects WmiClient::instances(const std::wstring& className) const {
  Objects objects;
  check("IWbemServices::CreateInstanceEnum",
        services_->CreateInstanceEnum(win::Bstr(className).get(), kStream, nullptr, &objects));
  return objects;
}

WmiClient::Objects WmiClient::query(const std::wstring& wql) const {
  Objects objects;
  check("IWbemServices::ExecQuery",
        services_->ExecQuery(win::Bstr(L"WQL").get(), win::Bstr(wql).get(), kStream, nullptr,
                             &objects));
  return objects;
}

WmiClient::Objects WmiClient::events(const std::wstring& wql) const {
  Objects objects;
  check("IWbemServices::ExecNotificationQuery",
        services_->ExecNotificationQuery(win::Bstr(L"WQL").get(), win::Bstr(wql).get(), kStream,
                                         nullptr, &objects));
  return objects;
}

WmiClient::Object WmiClient::next(const Objects& objects, LONG timeout) {
  Object object;
  ULONG count = 0;
  check("IEnumWbemClassObject::Next", objects->Next(timeout, 1, &object, &count));
  return object;
}

} // namespace test_support
