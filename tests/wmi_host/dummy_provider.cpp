// A decoupled provider for the tests of the stand-in. It registers itself as "TestProvider", and
// breaks a different rule for each class but Test_Device. Prints the HRESULT of its registration,
// and ends at the end of its input.

#include "ComObject.h"
#include "ProviderRegistration.h"
#include "RefusingObjects.h"
#include "win/Automation.h"
#include "win/Boundary.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace {

using Microsoft::WRL::ComPtr;
using win::wbemResult;

test_support::ProviderRegistration registration;

class Provider final : public test_support::RefusingServices<
                           test_support::ComObject<IWbemServices, IWbemProviderInit>> {
public:
  HRESULT STDMETHODCALLTYPE Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* services,
                                       IWbemContext*,
                                       IWbemProviderInitSink* sink) noexcept override {
    services_ = services;
    return sink->SetStatus(WBEM_S_INITIALIZED, 0);
  }

  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR name, LONG, IWbemContext*,
                                                    IWbemObjectSink* sink) noexcept override {
    return win::comBoundary([&] {
      const std::wstring className(name);
      if (className == L"Test_Failing") {
        sink->SetStatus(WBEM_STATUS_COMPLETE, wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE), nullptr,
                        nullptr);
        return wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE);
      }
      if (className == L"Test_WithoutStatus") {
        return S_OK;
      }
      if (className == L"Test_Blocking") {
        indicate(className, L"A", *sink); // tells the client that the request is here
        isCancelled_.wait(false);
        return wbemResult(WBEM_E_CALL_CANCELLED);
      }
      if (className == L"Test_Impersonating") {
        CoImpersonateClient();
      }
      return enumerate(className, *sink);
    });
  }

  HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) noexcept override {
    isCancelled_ = true;
    isCancelled_.notify_all();
    return S_OK;
  }

private:
  ~Provider() override = default;

  HRESULT indicate(const std::wstring& className, const wchar_t* id, IWbemObjectSink& sink) {
    ComPtr<IWbemClassObject> type;
    ComPtr<IWbemClassObject> object;
    HRESULT result = services_->GetObject(win::Bstr(className).get(), 0, nullptr, &type, nullptr);
    if (SUCCEEDED(result)) {
      result = type->SpawnInstance(0, &object);
    }
    if (SUCCEEDED(result)) {
      win::Variant value{win::Bstr(id)};
      result = object->Put(L"DeviceID", 0, value.get(), 0);
    }
    IWbemClassObject* one = object.Get();
    return SUCCEEDED(result) ? sink.Indicate(1, &one) : result;
  }

  HRESULT enumerate(const std::wstring& className, IWbemObjectSink& sink) {
    const std::wstring spawned = className == L"Test_WrongClass" ? L"Test_Device" : className;
    HRESULT result = indicate(spawned, L"A", sink);
    if (className == L"Test_LateObject") {
      sink.SetStatus(WBEM_STATUS_COMPLETE, S_OK, nullptr, nullptr);
    }
    if (SUCCEEDED(result)) {
      result = indicate(spawned, L"B",
                        className == L"Test_WrongEvent" ? *registration.sink.Get() : sink);
    }
    sink.SetStatus(WBEM_STATUS_COMPLETE, result, nullptr, nullptr);
    return result;
  }

  std::atomic<bool> isCancelled_ = false;
  ComPtr<IWbemServices> services_;
};

} // namespace

int main() {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  auto provider = test_support::adopt<IWbemServices>(new Provider);
  const HRESULT result = registration.start(L"TestProvider", provider.Get());
  std::printf("0x%08lX\n", static_cast<unsigned long>(result));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  TerminateProcess(GetCurrentProcess(), 0); // a blocked request does not end
}
