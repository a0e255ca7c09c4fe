#pragma once

#include <windows.h>
#include <wbemprov.h>
#include <wrl/client.h>

namespace test_support {

/// A decoupled provider's registration for requests and for events, until it is destroyed.
class ProviderRegistration {
public:
  /// For events.
  Microsoft::WRL::ComPtr<IWbemServices> services;
  Microsoft::WRL::ComPtr<IWbemObjectSink> sink;

  /// The first failure, or S_OK.
  HRESULT start(const wchar_t* name, IUnknown* provider) {
    constexpr const wchar_t* kNamespace = L"root\\cimv2";
    HRESULT result = CoCreateInstance(CLSID_WbemDecoupledRegistrar, nullptr, CLSCTX_INPROC_SERVER,
                                      IID_PPV_ARGS(&registrar_));
    if (SUCCEEDED(result)) {
      result = registrar_->Register(0, nullptr, nullptr, nullptr, kNamespace, name, provider);
    }
    if (SUCCEEDED(result)) {
      result = CoCreateInstance(CLSID_WbemDecoupledBasicEventProvider, nullptr,
                                CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&events_));
    }
    if (SUCCEEDED(result)) {
      result = events_->Register(0, nullptr, nullptr, nullptr, kNamespace, name, nullptr);
    }
    if (SUCCEEDED(result)) {
      result = events_->GetService(0, nullptr, &services);
    }
    return SUCCEEDED(result) ? events_->GetSink(0, nullptr, &sink) : result;
  }

private:
  Microsoft::WRL::ComPtr<IWbemDecoupledRegistrar> registrar_;
  Microsoft::WRL::ComPtr<IWbemDecoupledBasicEventProvider> events_;
};

} // namespace test_support
