// The stand-in across processes: this program is the client, wmi_host_dummy_provider.exe the
// provider's process, and COM finds the DLL in the registry, as it does for everybody else.

#include "win/Automation.h"
#include "win/Boundary.h"
#include "win/Handles.h"

#include <windows.h>
#include <gtest/gtest.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <winreg.h>
#include <wrl/client.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Microsoft::WRL::ComPtr;
using win::wbemResult;

constexpr GUID kRegistrar = {
    0x4cfc7932, 0x0f9d, 0x4bef, {0x9c, 0x32, 0x8e, 0xa2, 0xa6, 0xb5, 0x6f, 0xcb}};
constexpr GUID kEventProvider = {
    0xf5f75737, 0x2843, 0x4f22, {0x93, 0x3d, 0xc7, 0x6a, 0x97, 0xcd, 0xa6, 0x2f}};
constexpr wchar_t kSettings[] = L"SOFTWARE\\QuillmonTest\\WmiHost";
constexpr wchar_t kCounters[] = L"SOFTWARE\\QuillmonTest\\WmiHost\\Counters";
constexpr LONG kStream = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;
constexpr LONG kForever = -1;

std::wstring fullPath(const wchar_t* path) {
  wchar_t buffer[MAX_PATH] = {};
  GetFullPathNameW(path, MAX_PATH, buffer, nullptr);
  return buffer;
}

/// Beside this program.
std::wstring beside(const wchar_t* name) {
  wchar_t buffer[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  std::wstring path = buffer;
  return path.substr(0, path.find_last_of(L"\\/") + 1) + name;
}

void set(const wchar_t* name, DWORD value) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettings, name, REG_DWORD, &value, sizeof value);
}
void set(const wchar_t* name, const std::wstring& value) {
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettings, name, REG_SZ, value.c_str(),
                  static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}
DWORD counter(const wchar_t* name) {
  DWORD value = 0xffffffff;
  DWORD size = sizeof value;
  RegGetValueW(HKEY_LOCAL_MACHINE, kCounters, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return value;
}
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 200; ++i) {
    if (condition()) {
      return true;
    }
    Sleep(25);
  }
  return false;
}

/// A program with its standard input and output in our hands; killed at the end.
class Program {
public:
  explicit Program(const std::wstring& commandLine) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    win::Handle theirInput;
    win::Handle theirOutput;
    CreatePipe(theirInput.put(), input_.put(), &inherit, 0);
    CreatePipe(output_.put(), theirOutput.put(), &inherit, 0);
    SetHandleInformation(input_.get(), HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(output_.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = theirInput.get();
    start.hStdOutput = theirOutput.get();
    start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    std::wstring writable = commandLine;
    EXPECT_TRUE(CreateProcessW(nullptr, writable.data(), nullptr, nullptr, TRUE, 0, nullptr,
                               nullptr, &start, &process));
    process_.reset(process.hProcess);
    CloseHandle(process.hThread);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() { kill(); }

  std::string line() {
    std::string text;
    char c = 0;
    DWORD count = 0;
    while (ReadFile(output_.get(), &c, 1, &count, nullptr) && count == 1 && c != '\n') {
      if (c != '\r') {
        text += c;
      }
    }
    return text;
  }
  /// Everything up to its end, without the null bytes of UTF-16.
  std::string rest() {
    std::string text;
    char c = 0;
    DWORD count = 0;
    while (ReadFile(output_.get(), &c, 1, &count, nullptr) && count == 1) {
      if (c != '\0' && c != '\r') {
        text += c;
      }
    }
    return text;
  }
  std::string command(const std::string& text) {
    std::string bytes = text + "\n";
    DWORD written = 0;
    WriteFile(input_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    return line();
  }
  DWORD exitCode() {
    DWORD code = 0xffffffff;
    WaitForSingleObject(process_.get(), 10000);
    GetExitCodeProcess(process_.get(), &code);
    return code;
  }
  void finish() {
    input_.reset();
    WaitForSingleObject(process_.get(), 10000);
  }
  void kill() {
    TerminateProcess(process_.get(), 9);
    WaitForSingleObject(process_.get(), 10000);
  }

private:
  win::Handle input_;
  win::Handle output_;
  win::Handle process_;
};

class Provider : public Program {
public:
  Provider() : Program(L"\"" + beside(L"wmi_host_dummy_provider.exe") + L"\""), greeting(line()) {}
  const std::string greeting;
};
constexpr char kRegistered[] = "registered 0x00000000 0x00000000";

/// The DLL is registered for as long as the suite runs.
class Registration : public testing::Environment {
public:
  void SetUp() override {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    call("DllRegisterServer");
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
[[maybe_unused]] const auto* registration = testing::AddGlobalTestEnvironment(new Registration);

class ProcessTest : public testing::Test {
protected:
  void SetUp() override {
    win::RegistryKey key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSettings, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                    key.put(), nullptr);
    set(L"Mof", fullPath(L"" WMI_HOST_TEST_MOF));
    ComPtr<IWbemLocator> locator;
    ASSERT_EQ(
        CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)),
        S_OK);
    win::Bstr nameSpace(L"\\\\.\\root\\cimv2");
    ASSERT_EQ(locator->ConnectServer(nameSpace.get(), nullptr, nullptr, nullptr, 0, nullptr,
                                     nullptr, &services_),
              S_OK);
  }
  /// No switch outlives its test.
  void TearDown() override {
    for (const wchar_t* name :
         {L"SpawnInstance", L"SpawnInstanceAfter", L"Put", L"PutProperty", L"IndicateObject",
          L"IndicateEvent", L"GetObject", L"MissingClasses", L"Impersonate", L"ImpersonationLevel",
          L"CallerWithoutRights", L"RegisterProvider", L"RegisterEvents", L"CancelAfter",
          L"DelayBefore", L"DelayAfter", L"GetSink", L"GetService"}) {
      RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, name);
    }
  }

  static std::wstring text(IWbemClassObject& object, const wchar_t* name) {
    win::Variant value;
    EXPECT_EQ(object.Get(name, 0, value.get(), nullptr, nullptr), S_OK);
    return value.value().vt == VT_BSTR ? value.value().bstrVal : L"";
  }
  /// The DeviceIDs that come, then the status of the end.
  static HRESULT drain(IEnumWbemClassObject& objects, std::wstring& ids) {
    for (;;) {
      ComPtr<IWbemClassObject> object;
      ULONG count = 0;
      HRESULT result = objects.Next(20000, 1, &object, &count);
      if (count == 0) {
        return result;
      }
      ids += text(*object.Get(), L"DeviceID");
    }
  }
  /// An enumeration from start to end: what came, and the status if it failed.
  std::wstring list(const wchar_t* className, HRESULT& status, LONG flags = kStream) {
    ComPtr<IEnumWbemClassObject> objects;
    win::Bstr name(className);
    std::wstring ids;
    status = services_->CreateInstanceEnum(name.get(), flags, nullptr, &objects);
    if (SUCCEEDED(status)) {
      status = drain(*objects.Get(), ids);
    }
    return ids;
  }
  HRESULT query(const wchar_t* wql, std::wstring& ids, LONG flags = kStream) {
    ComPtr<IEnumWbemClassObject> objects;
    win::Bstr language(L"WQL");
    win::Bstr text(wql);
    HRESULT status = services_->ExecQuery(language.get(), text.get(), flags, nullptr, &objects);
    return FAILED(status) ? status : drain(*objects.Get(), ids);
  }
  HRESULT get(const wchar_t* path, ComPtr<IWbemClassObject>& object) {
    win::Bstr text(path);
    return services_->GetObject(text.get(), 0, nullptr, &object, nullptr);
  }
  HRESULT subscribe(const wchar_t* wql, ComPtr<IEnumWbemClassObject>& events,
                    LONG flags = kStream) {
    win::Bstr language(L"WQL");
    win::Bstr text(wql);
    return services_->ExecNotificationQuery(language.get(), text.get(), flags, nullptr, &events);
  }
  static std::wstring nextEvent(IEnumWbemClassObject& events, LONG timeout = 10000) {
    ComPtr<IWbemClassObject> event;
    ULONG count = 0;
    HRESULT result = events.Next(timeout, 1, &event, &count);
    return count == 1 ? text(*event.Get(), L"text")
                      : L"status " + std::to_wstring(static_cast<unsigned long>(result));
  }

  ComPtr<IWbemServices> services_;
};

const std::wstring kTimedOut = L"status " + std::to_wstring(WBEM_S_TIMEDOUT);

TEST_F(ProcessTest, AnotherNamespaceIsRefused) {
  ComPtr<IWbemLocator> locator;
  ASSERT_EQ(
      CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)),
      S_OK);
  ComPtr<IWbemServices> none;
  win::Bstr nameSpace(L"root\\nowhere");
  EXPECT_EQ(locator->ConnectServer(nameSpace.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                   &none),
            wbemResult(WBEM_E_INVALID_NAMESPACE));
}

TEST_F(ProcessTest, AClientMaySetItsProxyBlanket) {
  EXPECT_EQ(CoSetProxyBlanket(services_.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                              RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                              EOAC_NONE),
            S_OK);
}

TEST_F(ProcessTest, WithoutAProviderOnlyClassesAreServed) {
  HRESULT status = S_OK;
  ComPtr<IWbemClassObject> object;
  EXPECT_EQ(list(L"Test_Device", status), L"");
  EXPECT_EQ(status, wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
  EXPECT_EQ(get(L"Test_Device.DeviceID=\"A\"", object), wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
  EXPECT_EQ(get(L"Test_Device", object), S_OK);
  EXPECT_EQ(text(*object.Get(), L"__SUPERCLASS"), L"Test_Base");
  EXPECT_EQ(get(L"__Win32Provider.Name=\"TestProvider\"", object), S_OK);
}

TEST_F(ProcessTest, AProcessThatDiedIsNoProvider) {
  {
    Provider provider;
    ASSERT_EQ(provider.greeting, kRegistered);
  }
  HRESULT status = S_OK;
  list(L"Test_Device", status);
  EXPECT_EQ(status, wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
}

TEST_F(ProcessTest, ListsTheInstancesOfAClassAndOfThoseBelow) {
  Provider provider;
  ASSERT_EQ(provider.greeting, kRegistered);
  HRESULT status = S_OK;
  EXPECT_EQ(list(L"Test_Device", status), L"AB");
  EXPECT_EQ(status, WBEM_S_FALSE);
  EXPECT_EQ(list(L"test_base", status), L"ABAB"); // Test_Device and Test_Late
  EXPECT_EQ(status, WBEM_S_FALSE);
  EXPECT_EQ(list(L"Test_Base", status, kStream | WBEM_FLAG_SHALLOW), L""); // it is abstract
  EXPECT_EQ(status, WBEM_S_FALSE);
  EXPECT_EQ(list(L"Test_Device", status, 0), L"AB");
  EXPECT_EQ(list(L"Test_Nothing", status), L"");
  EXPECT_EQ(status, wbemResult(WBEM_E_INVALID_CLASS));
  EXPECT_EQ(list(L"Test_Orphan", status), L"");
  EXPECT_EQ(status, wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
  EXPECT_EQ(counter(L"Initialize"), 1u); // once, before the first request
  EXPECT_EQ(counter(L"Violations"), 0u);
  EXPECT_EQ(counter(L"LiveObjects"), 0u); // the provider let go of everything
  EXPECT_EQ(counter(L"LiveSinks"), 1u);   // its event sink
}

TEST_F(ProcessTest, FetchesOneInstanceByItsPath) {
  Provider provider;
  ComPtr<IWbemClassObject> object;
  ASSERT_EQ(get(L"Test_Device.DeviceID=\"B\"", object), S_OK);
  EXPECT_EQ(text(*object.Get(), L"__PATH"), L"\\\\.\\root\\cimv2:Test_Device.DeviceID=\"B\"");
  ASSERT_EQ(get(L"Test_Base.DeviceID='A'", object), S_OK); // found below an abstract class
  EXPECT_EQ(text(*object.Get(), L"__CLASS"), L"Test_Device");
  EXPECT_EQ(get(L"Test_Device.DeviceID=\"C\"", object), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(get(L"Test_Device.DeviceID=", object), wbemResult(WBEM_E_INVALID_OBJECT_PATH));
  EXPECT_EQ(get(L"root\\nowhere:Test_Device", object), wbemResult(WBEM_E_INVALID_NAMESPACE));
  EXPECT_EQ(get(L"Test_Nothing", object), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(object.Get(), nullptr);
}

TEST_F(ProcessTest, QueriesFilterAndProject) {
  Provider provider;
  std::wstring ids;
  EXPECT_EQ(query(L"SELECT * FROM Test_Device WHERE DeviceID = 'b'", ids), WBEM_S_FALSE);
  EXPECT_EQ(ids, L"B");
  ids.clear();
  EXPECT_EQ(query(L"SELECT DeviceID FROM Test_Device WHERE Count = 1 AND Flag = FALSE", ids),
            WBEM_S_FALSE);
  EXPECT_EQ(ids, L"A");
  EXPECT_EQ(query(L"SELECT Nothing FROM Test_Device", ids), wbemResult(WBEM_E_INVALID_QUERY));
  EXPECT_EQ(query(L"SELECT", ids), wbemResult(WBEM_E_INVALID_QUERY));
  EXPECT_EQ(query(L"SELECT * FROM Test_Nothing", ids), wbemResult(WBEM_E_INVALID_CLASS));
  ComPtr<IEnumWbemClassObject> objects; // without RETURN_IMMEDIATELY the call itself fails
  win::Bstr language(L"WQL");
  win::Bstr text(L"SELECT");
  EXPECT_EQ(services_->ExecQuery(language.get(), text.get(), 0, nullptr, &objects),
            wbemResult(WBEM_E_INVALID_QUERY));
  win::Bstr other(L"SQL");
  EXPECT_EQ(services_->ExecQuery(other.get(), text.get(), 0, nullptr, &objects),
            wbemResult(WBEM_E_INVALID_QUERY_TYPE));
}

TEST_F(ProcessTest, AnEnumeratorGoesBackSkipsAndClones) {
  Provider provider;
  ComPtr<IEnumWbemClassObject> objects;
  win::Bstr name(L"Test_Device");
  ASSERT_EQ(services_->CreateInstanceEnum(name.get(), 0, nullptr, &objects), S_OK);
  ComPtr<IWbemClassObject> object;
  ULONG count = 0;
  EXPECT_EQ(objects->Skip(kForever, 1), S_OK);
  ComPtr<IEnumWbemClassObject> copy;
  ASSERT_EQ(objects->Clone(&copy), S_OK);
  ASSERT_EQ(objects->Next(kForever, 1, &object, &count), S_OK);
  EXPECT_EQ(text(*object.Get(), L"DeviceID"), L"B");
  EXPECT_EQ(objects->Next(0, 1, &object, &count), WBEM_S_FALSE);
  EXPECT_EQ(objects->Reset(), S_OK);
  IWbemClassObject* both[3] = {};
  EXPECT_EQ(objects->Next(kForever, 3, both, &count), WBEM_S_FALSE);
  EXPECT_EQ(count, 2u);
  both[0]->Release();
  both[1]->Release();
  ASSERT_EQ(copy->Next(kForever, 1, &object, &count), S_OK);
  EXPECT_EQ(text(*object.Get(), L"DeviceID"), L"B");
  EXPECT_EQ(objects->Next(-2, 1, &object, &count), wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(objects->Skip(kForever, 1), WBEM_S_FALSE);

  ASSERT_EQ(services_->CreateInstanceEnum(name.get(), kStream, nullptr, &objects), S_OK);
  EXPECT_EQ(objects->Reset(), wbemResult(WBEM_E_INVALID_OPERATION));
  EXPECT_EQ(objects->Clone(&copy), wbemResult(WBEM_E_INVALID_OPERATION));
}

struct MisbehaviourRow {
  const wchar_t* className;
  const wchar_t* ids;
  HRESULT status;
  DWORD violations;
};

TEST_F(ProcessTest, AFailingOrMisbehavingProviderIsReported) {
  const MisbehaviourRow rows[] = {
      {L"Test_Failing", L"", wbemResult(WBEM_E_PROVIDER_NOT_CAPABLE), 0},
      {L"Test_Forgetful", L"", wbemResult(WBEM_E_PROVIDER_FAILURE), 0},
      {L"Test_Liar", L"", wbemResult(WBEM_E_INVALID_OBJECT), 1}, // another class
      {L"Test_Stubborn", L"A", WBEM_S_FALSE, 2},
      {L"Test_Late", L"AB", WBEM_S_FALSE, 0}, // answers on a thread of its own, after returning
  };
  for (const MisbehaviourRow& row : rows) {
    SCOPED_TRACE(win::narrow(row.className));
    Provider provider;
    HRESULT status = S_OK;
    EXPECT_EQ(list(row.className, status), row.ids);
    EXPECT_EQ(status, row.status);
    EXPECT_EQ(counter(L"Violations"), row.violations);
  }
}

TEST_F(ProcessTest, ACancelledCallReachesTheProvider) {
  Provider provider;
  ComPtr<IEnumWbemClassObject> objects;
  win::Bstr name(L"Test_Endless");
  ASSERT_EQ(services_->CreateInstanceEnum(name.get(), kStream, nullptr, &objects), S_OK);
  ComPtr<IWbemClassObject> object;
  ULONG count = 0;
  EXPECT_EQ(objects->Next(300, 1, &object, &count), WBEM_S_TIMEDOUT);
  objects.Reset();
  // Only CancelAsyncCall ends that request.
  EXPECT_TRUE(eventually([] { return counter(L"Requests") == 1 && counter(L"LiveSinks") == 1; }));
}

TEST_F(ProcessTest, AProviderThatDiesInTheMiddleFailsTheCall) {
  Provider provider;
  ComPtr<IEnumWbemClassObject> objects;
  win::Bstr name(L"Test_Endless");
  ASSERT_EQ(services_->CreateInstanceEnum(name.get(), kStream, nullptr, &objects), S_OK);
  ComPtr<IWbemClassObject> object;
  ULONG count = 0;
  EXPECT_EQ(objects->Next(300, 1, &object, &count), WBEM_S_TIMEDOUT);
  provider.kill();
  EXPECT_EQ(objects->Next(10000, 1, &object, &count), wbemResult(WBEM_E_PROVIDER_FAILURE));
}

TEST_F(ProcessTest, SeveralClientsAreServedAtOnce) {
  Provider provider;
  std::atomic<int> complete = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&] {
      CoInitializeEx(nullptr, COINIT_MULTITHREADED);
      for (int round = 0; round < 10; ++round) {
        HRESULT status = S_OK;
        complete += list(L"Test_Device", status) == L"AB" ? 1 : 0;
      }
      CoUninitialize();
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(complete, 40);
  EXPECT_EQ(counter(L"Initialize"), 1u);
  EXPECT_EQ(counter(L"Requests"), 40u);
}

TEST_F(ProcessTest, EventsReachEverySubscriberTheyMatch) {
  Provider provider;
  ComPtr<IEnumWbemClassObject> all;
  ComPtr<IEnumWbemClassObject> some;
  ASSERT_EQ(subscribe(L"SELECT * FROM Test_Event", all), S_OK);
  ASSERT_EQ(subscribe(L"SELECT * FROM __ExtrinsicEvent", some), S_OK);
  EXPECT_EQ(nextEvent(*all.Get(), 0), kTimedOut);
  EXPECT_EQ(provider.command("event one"), "0x00000000");
  EXPECT_EQ(provider.command("event two"), "0x00000000");
  EXPECT_EQ(nextEvent(*all.Get()), L"one");
  EXPECT_EQ(nextEvent(*all.Get()), L"two");
  EXPECT_EQ(nextEvent(*some.Get()), L"one");
  some.Reset();
  ASSERT_EQ(subscribe(L"SELECT * FROM Test_Event WHERE text = 'yes'", some), S_OK);
  provider.command("event no");
  provider.command("event yes");
  EXPECT_EQ(nextEvent(*some.Get()), L"yes");
  EXPECT_EQ(nextEvent(*some.Get(), 100), kTimedOut);
  EXPECT_EQ(counter(L"Violations"), 0u);
}

TEST_F(ProcessTest, ASubscriptionOutlivesTheProvider) {
  ComPtr<IEnumWbemClassObject> events;
  ASSERT_EQ(subscribe(L"SELECT * FROM Test_Event", events), S_OK); // nobody is there yet
  for (const char* round : {"first", "second"}) {
    Provider provider;
    std::wstring got;
    ASSERT_TRUE(eventually([&] {
      EXPECT_EQ(provider.command(std::string("event ") + round), "0x00000000");
      got = nextEvent(*events.Get(), 50);
      return got != kTimedOut;
    }));
    EXPECT_EQ(got, std::wstring(round, round + strlen(round)));
    while (nextEvent(*events.Get(), 200) != kTimedOut) {
    }
  }
}

TEST_F(ProcessTest, ANotificationQueryIsChecked) {
  ComPtr<IEnumWbemClassObject> events;
  EXPECT_EQ(subscribe(L"SELECT * FROM Test_Event", events, WBEM_FLAG_RETURN_IMMEDIATELY),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(subscribe(L"SELECT", events), wbemResult(WBEM_E_UNPARSABLE_QUERY));
  EXPECT_EQ(subscribe(L"SELECT * FROM Test_Nothing", events), wbemResult(WBEM_E_INVALID_CLASS));
  EXPECT_EQ(subscribe(L"SELECT * FROM Test_Device", events), wbemResult(WBEM_E_NOT_EVENT_CLASS));
  EXPECT_EQ(subscribe(L"SELECT * FROM Test_Event WHERE no = 1", events),
            wbemResult(WBEM_E_INVALID_QUERY));
}

/// Collects what an asynchronous call delivers.
class Sink final : public IWbemObjectSink {
public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) noexcept override {
    bool known = iid == IID_IUnknown || iid == IID_IWbemObjectSink;
    *result = known ? this : nullptr;
    return known ? S_OK : E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return 2; } // lives on the test's stack
  ULONG STDMETHODCALLTYPE Release() noexcept override { return 1; }
  HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject**) noexcept override {
    objects += count;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT result, BSTR,
                                      IWbemClassObject*) noexcept override {
    status = result;
    isComplete = true;
    return S_OK;
  }
  std::atomic<long> objects = 0;
  std::atomic<HRESULT> status = S_OK;
  std::atomic<bool> isComplete = false;
};

TEST_F(ProcessTest, AsynchronousCallsDeliverToTheSink) {
  Provider provider;
  win::Bstr language(L"WQL");
  win::Bstr wql(L"SELECT * FROM Test_Device");
  Sink objects;
  ASSERT_EQ(services_->ExecQueryAsync(language.get(), wql.get(), 0, nullptr, &objects), S_OK);
  ASSERT_TRUE(eventually([&] { return objects.isComplete.load(); }));
  EXPECT_EQ(objects.objects, 2);
  EXPECT_EQ(objects.status, S_OK);

  win::Bstr eventQuery(L"SELECT * FROM Test_Event");
  Sink events;
  ASSERT_EQ(
      services_->ExecNotificationQueryAsync(language.get(), eventQuery.get(), 0, nullptr, &events),
      S_OK);
  provider.command("event x");
  EXPECT_TRUE(eventually([&] { return events.objects == 1; }));
  EXPECT_FALSE(events.isComplete);
  EXPECT_EQ(services_->CancelAsyncCall(&events), S_OK);
  ASSERT_TRUE(eventually([&] { return events.isComplete.load(); }));
  EXPECT_EQ(events.status, wbemResult(WBEM_E_CALL_CANCELLED));
  Sleep(100); // its threads let go of the sinks on this stack
}

struct SwitchRow {
  const wchar_t* name;
  DWORD value;
  const wchar_t* ids;
  HRESULT status;
};

TEST_F(ProcessTest, TheFailureSwitchesReachTheProvider) {
  Provider provider;
  const DWORD failed = static_cast<DWORD>(WBEM_E_FAILED);
  const SwitchRow rows[] = {
      {L"SpawnInstance", failed, L"", wbemResult(WBEM_E_FAILED)},
      {L"Put", failed, L"", wbemResult(WBEM_E_FAILED)},
      {L"IndicateObject", failed, L"", wbemResult(WBEM_E_FAILED)},
      {L"GetObject", failed, L"", wbemResult(WBEM_E_FAILED)},
      {L"CancelAfter", 1, L"A", wbemResult(WBEM_E_CALL_CANCELLED)},
      {L"DelayBefore", 200, L"AB", WBEM_S_FALSE},
      {L"DelayAfter", 200, L"AB", WBEM_S_FALSE},
  };
  for (const SwitchRow& row : rows) {
    SCOPED_TRACE(win::narrow(row.name));
    set(row.name, row.value);
    HRESULT status = S_OK;
    EXPECT_EQ(list(L"Test_Device", status), row.ids);
    EXPECT_EQ(status, row.status);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, row.name);
    EXPECT_EQ(list(L"Test_Device", status), L"AB"); // and off again
  }
}

TEST_F(ProcessTest, ASwitchCanLetSomeCallsPass) {
  Provider provider;
  HRESULT status = S_OK;
  set(L"SpawnInstance", static_cast<DWORD>(WBEM_E_OUT_OF_MEMORY));
  set(L"SpawnInstanceAfter", 1);
  EXPECT_EQ(list(L"Test_Device", status), L"A");
  EXPECT_EQ(status, wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_EQ(list(L"Test_Device", status), L""); // the one was used up
}

TEST_F(ProcessTest, OnePropertyOrOneClassCanBeMadeToFail) {
  Provider provider;
  HRESULT status = S_OK;
  set(L"Put", static_cast<DWORD>(WBEM_E_FAILED));
  set(L"PutProperty", L"Nothing;Other");
  EXPECT_EQ(list(L"Test_Device", status), L"AB");
  set(L"PutProperty", L"Other;count");
  EXPECT_EQ(list(L"Test_Device", status), L"");
  EXPECT_EQ(status, wbemResult(WBEM_E_FAILED));
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, L"Put");
  set(L"MissingClasses", L"Test_Device");
  EXPECT_EQ(list(L"Test_Device", status), L"");
  EXPECT_EQ(status, wbemResult(WBEM_E_NOT_FOUND)); // what the provider got for the class
  EXPECT_EQ(list(L"Test_Late", status), L"AB");
}

TEST_F(ProcessTest, TheClientsTokenIsAsConfigured) {
  Provider provider;
  auto caller = [&] {
    ComPtr<IWbemClassObject> object;
    HRESULT result = get(L"Test_Device.DeviceID=\"A\"", object);
    return SUCCEEDED(result) ? text(*object.Get(), L"Caller") : L"failed";
  };
  EXPECT_EQ(caller(), L"level 2 granted");
  set(L"ImpersonationLevel", 0);
  EXPECT_EQ(caller(), L"no token 1347"); // ERROR_CANT_OPEN_ANONYMOUS
  set(L"ImpersonationLevel", 1);
  EXPECT_EQ(caller(), L"level 1 granted");
  set(L"ImpersonationLevel", 3);
  EXPECT_EQ(caller(), L"level 3 granted");
  set(L"ImpersonationLevel", 2);
  set(L"CallerWithoutRights", 1);
  EXPECT_EQ(caller(), L"level 2 denied");
  set(L"Impersonate", static_cast<DWORD>(E_ACCESSDENIED));
  EXPECT_EQ(caller(), L"refused " + std::to_wstring(E_ACCESSDENIED));
  EXPECT_EQ(counter(L"Violations"), 0u);
}

TEST_F(ProcessTest, RegistrationCanBeMadeToFail) {
  set(L"RegisterProvider", static_cast<DWORD>(WBEM_E_ACCESS_DENIED));
  {
    Provider provider;
    EXPECT_EQ(provider.greeting, "registered 0x80041003 0x00000000");
  }
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, L"RegisterProvider");
  set(L"RegisterEvents", static_cast<DWORD>(WBEM_E_FAILED));
  Provider provider;
  EXPECT_EQ(provider.greeting, "registered 0x00000000 0x80041001");
}

TEST_F(ProcessTest, AnEventCanBeMadeToFail) {
  Provider provider;
  set(L"IndicateEvent", static_cast<DWORD>(WBEM_E_FAILED));
  EXPECT_EQ(provider.command("event x"), "0x80041001");
  RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSettings, L"IndicateEvent");
  EXPECT_EQ(provider.command("event x"), "0x00000000");
}

TEST_F(ProcessTest, UnregisteringLetsGoOfTheProvider) {
  Provider provider;
  HRESULT status = S_OK;
  EXPECT_EQ(list(L"Test_Device", status), L"AB");
  EXPECT_EQ(provider.command("unregister"), "0x00000000 0x00000000");
  EXPECT_EQ(counter(L"ProviderReferences"), 0u);
  EXPECT_EQ(provider.command("unregister"), "0x80041085 0x80041085"); // not registered
  EXPECT_EQ(provider.command("event x"), "0x80041085");
  list(L"Test_Device", status);
  EXPECT_EQ(status, wbemResult(WBEM_E_PROVIDER_LOAD_FAILURE));
}

// Last, because from here on this process is a provider's, where the failure switches act.
TEST_F(ProcessTest, ZRegistrationChecksItsArguments) {
  ComPtr<IWbemDecoupledRegistrar> registrar;
  ComPtr<IWbemDecoupledBasicEventProvider> events;
  ASSERT_EQ(CoCreateInstance(kRegistrar, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&registrar)),
            S_OK);
  ASSERT_EQ(CoCreateInstance(kEventProvider, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&events)),
            S_OK);
  struct Row {
    LONG flags;
    const wchar_t* scope;
    const wchar_t* name;
    HRESULT result;
  };
  const Row rows[] = {
      {1, L"root\\cimv2", L"TestProvider", wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, nullptr, L"TestProvider", wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, L"root\\cimv2", nullptr, wbemResult(WBEM_E_INVALID_PARAMETER)},
      {0, L"root\\nowhere", L"TestProvider", wbemResult(WBEM_E_INVALID_NAMESPACE)},
      {0, L"root\\cimv2", L"Nobody", wbemResult(WBEM_E_PROVIDER_NOT_FOUND)},
  };
  auto tryRegister = [&](IWbemDecoupledRegistrar& target, const Row& row) {
    return target.Register(row.flags, nullptr, nullptr, nullptr, row.scope, row.name, events.Get());
  };
  for (const Row& row : rows) {
    EXPECT_EQ(tryRegister(*registrar.Get(), row), row.result) << &row - rows;
    EXPECT_EQ(tryRegister(*events.Get(), row), row.result) << &row - rows;
  }
  EXPECT_EQ(
      registrar->Register(0, nullptr, nullptr, nullptr, L"root\\cimv2", L"TestProvider", nullptr),
      wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(registrar->UnRegister(), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));
  ComPtr<IWbemObjectSink> sink;
  ComPtr<IWbemServices> services;
  EXPECT_EQ(events->GetSink(0, nullptr, &sink), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));
  EXPECT_EQ(events->GetService(0, nullptr, &services), wbemResult(WBEM_E_PROVIDER_NOT_REGISTERED));

  const Row good = {0, L"root\\cimv2", L"TestProvider", S_OK};
  EXPECT_EQ(tryRegister(*registrar.Get(), good), S_OK);
  EXPECT_EQ(tryRegister(*events.Get(), good), S_OK);
  EXPECT_EQ(tryRegister(*registrar.Get(), good), wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED));
  EXPECT_EQ(tryRegister(*events.Get(), good), wbemResult(WBEM_E_PROVIDER_ALREADY_REGISTERED));
  EXPECT_EQ(registrar->UnRegister(), S_OK);
  EXPECT_EQ(events->UnRegister(), S_OK);

  set(L"Mof", fullPath(L"no\\such.mof"));
  EXPECT_EQ(tryRegister(*registrar.Get(), good), wbemResult(WBEM_E_CRITICAL_ERROR));
}

TEST_F(ProcessTest, TheDirectClientPrintsWhatItGets) {
  std::wstring client = L"\"" + beside(L"wmi_client.exe") + L"\" ";
  Program none(client + L"list Test_Device");
  EXPECT_EQ(none.rest(), "IEnumWbemClassObject::Next: 0x80041013\n");
  EXPECT_EQ(none.exitCode(), 1u);
  Provider provider;
  Program list(client + L"list Test_Device DeviceID Count Big Flag");
  EXPECT_EQ(list.rest(), "DeviceID\tCount\tBig\tFlag\nA\t1\t(null)\tFalse\nB\t-1\t(null)\tFalse\n");
  EXPECT_EQ(list.exitCode(), 0u);
  Program query(client + L"query \"SELECT DeviceID FROM Test_Device WHERE Count=1\"");
  EXPECT_EQ(query.rest(), "DeviceID\nA\n");
  Program get(client + L"get Test_Device.DeviceID='B'");
  EXPECT_EQ(get.line(), "__PATH = \\\\.\\root\\cimv2:Test_Device.DeviceID=\"B\"");
  EXPECT_EQ(get.line(), "DeviceID = B");
  Program watch(client + L"watch 20 1 \"SELECT * FROM Test_Event\"");
  EXPECT_EQ(watch.line(), "ready");
  provider.command("event now");
  EXPECT_EQ(watch.rest(), "Test_Event text=\"now\"\n");
  EXPECT_EQ(watch.exitCode(), 0u);
  Program idle(client + L"watch 1 1 \"SELECT * FROM Test_Event\"");
  EXPECT_EQ(idle.rest(), "ready\n");
  EXPECT_EQ(idle.exitCode(), 1u);
}

TEST_F(ProcessTest, WmicListsWithColumns) {
  Provider provider;
  Program wmic(L"wmic.exe path Test_Device get DeviceID,Count");
  wmic.finish();
  std::string output = wmic.rest();
  // Wine's wmic makes all columns as wide as the longest value and two more, whatever their names.
  EXPECT_NE(output.find("DeviceIDCount\n"
                        "A   1   \n"
                        "B   -1  \n"),
            std::string::npos)
      << output;
}

TEST_F(ProcessTest, AScriptListsFetchesAndQueries) {
  Provider provider;
  Program script(L"cscript.exe //nologo \"" + fullPath(L"" WMI_HOST_TEST_SCRIPT) + L"\"");
  script.finish();
  EXPECT_EQ(script.rest(), "A 1\nB -1\ngot B\nfound A\nmissing 80041002\n");
}

} // namespace
