#pragma once

#include "PatchedImport.h"
#include "provider/CProvider_IWbemServices.h"
#include "provider/ProviderState.h"
#include "provider/testing/ProviderFakes.h"

#include <cstring>
#include <string>
#include <vector>

namespace provider_testing {

/// A provider object as created by the registration, and calls of a caller with access.
class ProviderTest : public testing::Test {
protected:
  ProviderTest() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    fakes::script = &script_;
    call_.token = fakes::callerToken(SecurityImpersonation);
    eventClass_ = new fakes::FakeClass;
    scanners_ = new fakes::FakeClass;
    namespace_ = new fakes::FakeNamespace;
    namespace_->classes = {{L"QuillmonEvent", eventClass_}, {L"UPOS_Scanner", scanners_}};
    provider_ = new CProvider_IWbemServices;
    provider_->AddRef();
    limit_ = 1;
    recorded_trace::clear();
  }

  // All references are balanced, except that each Initialize keeps one of the namespace.
  ~ProviderTest() override {
    if (provider_ != nullptr) {
      EXPECT_EQ(provider_->Release(), 0U);
    }
    EXPECT_EQ(CProvider_IWbemServices::liveObjects(), 0);
    EXPECT_EQ(namespace_->references(), 1 + initialisations_);
    EXPECT_EQ(eventClass_->references(), 1);
    EXPECT_EQ(scanners_->references(), 1);
    EXPECT_EQ(scanners_->strayReferences(), 0);
    EXPECT_EQ(sink_.references(), 1);
    EXPECT_EQ(initSink_.references(), 1);
    EXPECT_EQ(script_.liveAdapters, 0);
    EXPECT_FALSE(call_.IsImpersonating());
    CloseHandle(call_.token);
    provider::providerState().namespaceServices = nullptr;
    CoUninitialize();
  }

  /// Calls Initialize as WMI does, with the configured `limit`.
  HRESULT initialize(UINT limit = 1) {
    limit_ = limit;
    const test_support::PatchedImport configuration("GetPrivateProfileIntA", &readLimit);
    ++initialisations_;
    wchar_t user[] = L"tilluser";
    wchar_t nameSpace[] = L"root\\cimv2";
    wchar_t locale[] = L"MS_409";
    const HRESULT result =
        provider_->Initialize(user, 0, nameSpace, locale, namespace_, context_, &initSink_);
    recorded_trace::clear();
    return result;
  }

  HRESULT enumerate(const wchar_t* className = L"UPOS_Scanner") {
    const fakes::InCall inside(call_);
    const win::Bstr name(className);
    return provider_->CreateInstanceEnumAsync(name.get(), 0, context_, &sink_);
  }

  HRESULT retrieve(const wchar_t* path = L"UPOS_Scanner.DeviceID=\"S1\"") {
    const fakes::InCall inside(call_);
    const win::Bstr text(path);
    return provider_->GetObjectAsync(text.get(), 0, context_, &sink_);
  }

  /// The number of free slots of the admission semaphore.
  static int freeSlots() {
    const HANDLE semaphore = provider::providerState().admissionSemaphore;
    int count = 0;
    while (WaitForSingleObject(semaphore, 0) == WAIT_OBJECT_0) {
      ++count;
    }
    if (count > 0) {
      ReleaseSemaphore(semaphore, count, nullptr);
    }
    return count;
  }

  /// The traced lines without those of the request adapter, except for its construction and
  /// destruction.
  static std::vector<std::string> traced(std::vector<std::string> lines = recorded_trace::lines()) {
    std::vector<std::string> own;
    for (const std::string& line : lines) {
      if (line.rfind("<<UPOSAdapter(", 0) == 0) {
        own.push_back(line.find(") created") != std::string::npos ? "adapter created"
                                                                  : "adapter destroyed");
      } else if (line.rfind("<<UPOSAdapter::", 0) != 0 && line.rfind("<<Request>>", 0) != 0 &&
                 line.rfind("Answer: ", 0) != 0) {
        own.push_back(line);
      }
    }
    return own;
  }

  static UINT WINAPI readLimit(LPCSTR section, LPCSTR key, INT defaultValue, LPCSTR file) {
    EXPECT_STREQ(section, "default");
    EXPECT_STREQ(key, "provider.maxQueryThreads");
    EXPECT_EQ(defaultValue, 1);
    EXPECT_STREQ(file, "\\POS\\JavaPOS\\Config\\quillmon.properties");
    return limit_;
  }

  static inline UINT limit_ = 1;

  fakes::Script script_;
  fakes::FakeCall call_;
  fakes::FakeClass* eventClass_;
  fakes::FakeClass* scanners_;
  fakes::FakeNamespace* namespace_;
  fakes::FakeInitSink initSink_;
  fakes::FakeResponseSink sink_;
  CProvider_IWbemServices* provider_;
  int initialisations_ = 0;
  IWbemContext* const context_ = reinterpret_cast<IWbemContext*>(0x1234); // only handed on
};

} // namespace provider_testing
