// The stand-in across processes: this program is the client, wmi_host_dummy_provider.exe is the
// provider's process, and both load the DLL through COM. The product's system tests cover the rest:
// lists, events, the failure switches, Wine's clients.

#include "WmiClient.h"
#include "win/Automation.h"
#include "win/Boundary.h"
#include "win/Handles.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <wbemprov.h>
#include <winreg.h>

#include <functional>
#include <string>

namespace wmi_host {
namespace {

using Microsoft::WRL::ComPtr;
using test_support::WmiClient;
using win::wbemResult;

constexpr wchar_t kSettings[] = L"SOFTWARE\\QuillmonTest\\WmiHost";
constexpr wchar_t kCounters[] = L"SOFTWARE\\QuillmonTest\\WmiHost\\Counters";

std::wstring fullPath(const wchar_t* path) {
  wchar_t buffer[MAX_PATH] = {};
  GetFullPathNameW(path, MAX_PATH, buffer, nullptr);
  return buffer;
}

/// The path of a file in this program's folder.
std::wstring beside(const wchar_t* name) {
  wchar_t buffer[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  std::wstring path = buffer;
  return path.substr(0, path.find_last_of(L"\\/") + 1) + name;
}

void setMof(const std::wstring& value) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettings, L"Mof", REG_SZ, value.c_str(),
                  static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

DWORD counter(const wchar_t* name) {
  DWORD value = 0xffffffff;
  DWORD size = sizeof value;
  RegGetValueW(HKEY_LOCAL_MACHINE, kCounters, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}

/// The provider's process. The destructor kills it.
class Provider {
public:
  Provider() {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    win::Handle theirInput;
    win::Handle theirOutput;
    win::Handle output;
    CreatePipe(theirInput.put(), input_.put(), &inherit, 0);
    CreatePipe(output.put(), theirOutput.put(), &inherit, 0);
    SetHandleInformation(input_.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = theirInput.get();
    start.hStdOutput = theirOutput.get();
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    std::wstring program = L"\"" + beside(L"wmi_host_dummy_provider.exe") + L"\"";
    EXPECT_TRUE(CreateProcessW(nullptr, program.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                               &start, &process));
    process_.reset(process.hProcess);
    CloseHandle(process.hThread);
    char registered[10] = {};
    DWORD count = 0;
    EXPECT_TRUE(ReadFile(output.get(), registered, sizeof registered, &count, nullptr));
    EXPECT_EQ(std::string(registered, count), "0x00000000");
  }
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;
  ~Provider() { kill(); }

  void kill() {
    TerminateProcess(process_.get(), 9);
    WaitForSingleObject(process_.get(), 10000);
  }

private:
  win::Handle input_;
  win::Handle process_;
};

/// Registers the DLL for all tests.
class RegisteredLibrary : public testing::Environment {
public:
  void SetUp() override {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    call("DllRegisterServer");
    win::RegistryKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSettings, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                    key.put(), nullptr);
    setMof(fullPath(L"" WMI_HOST_TEST_MOF));
  }
  void TearDown() override {
    call("DllUnregisterServer");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettings);
  }

private:
  static void call(const char* name) {
    HMODULE module = LoadLibraryW(beside(L"wmi_host.dll").c_str());
    ASSERT_NE(module, nullptr);
    using Entry = HRESULT(STDAPICALLTYPE*)();
    void* address = reinterpret_cast<void*>(GetProcAddress(module, name));
    EXPECT_EQ(reinterpret_cast<Entry>(address)(), S_OK);
  }
};
[[maybe_unused]] const auto* library = testing::AddGlobalTestEnvironment(new RegisteredLibrary);

/// The code of the first failure in `calls`, or S_OK.
HRESULT failureOf(const std::function<void(const WmiClient&)>& calls) {
  try {
    calls(WmiClient());
    return S_OK;
  } catch (const test_support::WmiFailure& failure) {
    return failure.result;
  }
}

struct Listed {
  std::wstring ids;
  HRESULT status;
};

/// Lists a class: the DeviceIDs, and the final status.
Listed list(const wchar_t* className) {
  Listed listed{};
  listed.status = failureOf([&](const WmiClient& client) {
    const WmiClient::Objects objects = client.instances(className);
    while (WmiClient::Object object = WmiClient::next(objects)) {
      win::Variant value;
      EXPECT_EQ(object->Get(L"DeviceID", 0, value.get(), nullptr, nullptr), S_OK);
      listed.ids += value.value().bstrVal;
    }
  });
  return listed;
}

struct FailedCallRow {
  HRESULT code;
  std::function<void(const WmiClient&)> call;
};

TEST(WmiHostClient, AFailedCallHasTheDocumentedCode) {
  const auto listed = [](const WmiClient::Objects& objects) { WmiClient::next(objects); };
  const FailedCallRow rows[] = {
      {wbemResult(WBEM_E_INVALID_OBJECT_PATH),
       [](const WmiClient& client) { client.get(L"Test_Device.DeviceID="); }},
      {wbemResult(WBEM_E_INVALID_NAMESPACE),
       [](const WmiClient& client) { client.get(L"root\\nowhere:Test_Device"); }},
      {wbemResult(WBEM_E_NOT_FOUND), [](const WmiClient& client) { client.get(L"Test_Nothing"); }},
      {wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE),
       [&](const WmiClient& client) { listed(client.instances(L"Test_OfAnotherProvider")); }},
      {wbemResult(WBEM_E_INVALID_QUERY),
       [&](const WmiClient& client) { listed(client.query(L"SELECT")); }},
      {wbemResult(WBEM_E_INVALID_QUERY),
       [&](const WmiClient& client) { listed(client.query(L"SELECT No FROM Test_Device")); }},
      {wbemResult(WBEM_E_INVALID_CLASS),
       [&](const WmiClient& client) { listed(client.query(L"SELECT * FROM Test_Nothing")); }},
      {wbemResult(WBEM_E_UNPARSABLE_QUERY),
       [](const WmiClient& client) { client.events(L"SELECT"); }},
      {wbemResult(WBEM_E_INVALID_CLASS),
       [](const WmiClient& client) { client.events(L"SELECT * FROM Test_Nothing"); }},
      {wbemResult(WBEM_E_NOT_EVENT_CLASS),
       [](const WmiClient& client) { client.events(L"SELECT * FROM Test_Device"); }},
      {wbemResult(WBEM_E_INVALID_QUERY),
       [](const WmiClient& client) { client.events(L"SELECT * FROM Test_Event WHERE no = 1"); }},
  };
  const Provider provider;
  for (const FailedCallRow& row : rows) {
    EXPECT_EQ(failureOf(row.call), row.code) << &row - rows;
  }
}

struct MisbehaviorRow {
  const wchar_t* className;
  const wchar_t* ids;
  HRESULT status;
  DWORD violations;
};

TEST(WmiHostProvider, AMisbehavingProviderIsReported) {
  const MisbehaviorRow rows[] = {
      {L"Test_Device", L"AB", S_OK, 0},
      {L"Test_Failing", L"", wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE), 0},
      {L"Test_WithoutStatus", L"", wbemResult(WBEM_E_PROVIDER_FAILURE), 0},
      {L"Test_WrongClass", L"", wbemResult(WBEM_E_INVALID_OBJECT), 1},
      {L"Test_WrongEvent", L"A", wbemResult(WBEM_E_INVALID_OBJECT), 1},
      {L"Test_LateObject", L"A", S_OK, 2}, // with a second status
      {L"Test_Impersonating", L"AB", S_OK, 1},
  };
  for (const MisbehaviorRow& row : rows) {
    SCOPED_TRACE(win::narrow(row.className));
    const Provider provider;
    const Listed listed = list(row.className);
    EXPECT_EQ(listed.ids, row.ids);
    EXPECT_EQ(listed.status, row.status);
    EXPECT_EQ(counter(L"Violations"), row.violations);
  }
}

/// Starts a list that the provider has begun and does not end.
WmiClient::Objects blockedList() {
  const WmiClient::Objects objects = WmiClient().instances(L"Test_Blocking");
  EXPECT_TRUE(WmiClient::next(objects, 10000));
  EXPECT_FALSE(WmiClient::next(objects, 100));
  return objects;
}

TEST(WmiHostProvider, TheEndOfAClientsInterestCancelsItsRequest) {
  const Provider provider;
  WmiClient::Objects objects = blockedList();
  objects.Reset();
  // Only CancelAsyncCall ends this request. The remaining sink is the one for events.
  for (int i = 0; i < 400 && (counter(L"Requests") != 1 || counter(L"LiveSinks") != 1); ++i) {
    Sleep(25);
  }
  EXPECT_EQ(counter(L"Requests"), 1U);
  EXPECT_EQ(counter(L"LiveSinks"), 1U);
}

TEST(WmiHostProvider, TheEndOfItsProcessFailsTheRequestAndWithdrawsIt) {
  Provider provider;
  const WmiClient::Objects objects = blockedList();
  provider.kill();
  EXPECT_EQ(failureOf([&](const WmiClient&) { WmiClient::next(objects, 10000); }),
            wbemResult(WBEM_E_PROVIDER_FAILURE));
  EXPECT_EQ(list(L"Test_Device").status, wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
}

struct RegistrationRow {
  LONG flags;
  const wchar_t* scope;
  const wchar_t* name;
  HRESULT result;
};

TEST(WmiHostRegistration, ChecksItsArguments) {
  ComPtr<IWbemDecoupledRegistrar> registrar;
  ComPtr<IWbemDecoupledBasicEventProvider> events;
  ASSERT_EQ(CoCreateInstance(CLSID_WbemDecoupledRegistrar, nullptr, CLSCTX_INPROC_SERVER,
                             IID_PPV_ARGS(&registrar)),
            S_OK);
  ASSERT_EQ(CoCreateInstance(CLSID_WbemDecoupledBasicEventProvider, nullptr, CLSCTX_INPROC_SERVER,
                             IID_PPV_ARGS(&events)),
            S_OK);
  const RegistrationRow rows[] = {
      {1, L"root\\cimv2", L"TestProvider", wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, nullptr, L"TestProvider", wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, L"root\\cimv2", nullptr, wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, L"root\\nowhere", L"TestProvider", wbemResult(WBEM_E_INVALID_NAMESPACE)},
      {0, L"root\\cimv2", L"Nobody", wbemResult(WBEM_E_PROVIDER_NOT_FOUND)},
      {0, L"root\\cimv2", L"TestProvider", S_OK},
      {0, L"root\\cimv2", L"TestProvider", wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED)},
  };
  ComPtr<IWbemObjectSink> sink;
  ComPtr<IWbemServices> services;
  EXPECT_EQ(registrar->UnRegister(), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));
  EXPECT_EQ(events->GetSink(0, nullptr, &sink), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));
  EXPECT_EQ(events->GetService(0, nullptr, &services), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));
  EXPECT_EQ(
      registrar->Register(0, nullptr, nullptr, nullptr, L"root\\cimv2", L"TestProvider", nullptr),
      wbemResult(WBEM_E_INVALID_PARAMETER));
  for (const RegistrationRow& row : rows) {
    for (IWbemDecoupledRegistrar* target :
         {registrar.Get(), static_cast<IWbemDecoupledRegistrar*>(events.Get())}) {
      EXPECT_EQ(
          target->Register(row.flags, nullptr, nullptr, nullptr, row.scope, row.name, events.Get()),
          row.result)
          << &row - rows;
    }
  }
  EXPECT_EQ(registrar->UnRegister(), S_OK);
  EXPECT_EQ(events->UnRegister(), S_OK);
}

TEST(WmiHostRegistration, AProcessThatLeavesLateKeepsItsSuccessorRegistered) {
  ComPtr<IWbemDecoupledRegistrar> registrar;
  ASSERT_EQ(CoCreateInstance(CLSID_WbemDecoupledRegistrar, nullptr, CLSCTX_INPROC_SERVER,
                             IID_PPV_ARGS(&registrar)),
            S_OK);
  ASSERT_EQ(registrar->Register(0, nullptr, nullptr, nullptr, L"root\\cimv2", L"TestProvider",
                                registrar.Get()),
            S_OK);
  const Provider successor;
  EXPECT_EQ(registrar->UnRegister(), S_OK);
  EXPECT_EQ(list(L"Test_Device").ids, L"AB");
}

} // namespace
} // namespace wmi_host
