#pragma once

#include "model/IUPOSXmlAdapter.h"
#include "model/InstanceList.h"
#include "win/Boundary.h"

#include <windows.h>
#include <RecordedTrace.h>
#include <RefusingObjects.h>
#include <gtest/gtest.h>
#include <wbemcli.h>
#include <wbemprov.h>
#include <wmiutils.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#ifdef __MINGW32__ // whose headers lack the ids of these interfaces
__CRT_UUID_DECL(IWbemPath, 0x3bc15af2, 0x736c, 0x477e, 0x9e, 0x51, 0x23, 0x8a, 0xf8, 0x66, 0x7d,
                0xcc)
__CRT_UUID_DECL(IWbemPathKeyList, 0x9ae62877, 0x7544, 0x4bb0, 0xaa, 0x26, 0xa1, 0x38, 0x24, 0x65,
                0x9e, 0xd6)
#endif

/// Fakes of the WMI and COM objects that the provider uses. They count references, return the
/// platform's error codes, enforce the order of calls, and fail on demand.
namespace fakes {

/// Counts references, starting with 1 for the test. Release does not delete, so that an excess
/// Release is reported as a failure instead of a crash.
template <class Interface>
class Counted : public Interface {
public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
    if (iid == IID_IUnknown || iid == __uuidof(Interface)) {
      *object = static_cast<Interface*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++references_); }
  ULONG STDMETHODCALLTYPE Release() override {
    const long left = --references_;
    EXPECT_GE(left, 0) << "released too often";
    return static_cast<ULONG>(left);
  }
  long references() const { return references_; }

private:
  std::atomic<long> references_ = 1;
};

/// The VARIANT types that each property accepts.
using Properties = std::map<std::wstring, std::set<VARTYPE>>;

inline const Properties kDeviceProperties = {
    {L"DeviceID", {VT_BSTR}},          {L"ModelName", {VT_BSTR}},
    {L"GoodScanCount", {VT_I4}},       {L"HoursPoweredCount", {VT_I4, VT_BSTR}},
    {L"Enabled", {VT_BOOL}},           {L"InstallationDate", {VT_BSTR}},
    {L"Capabilities", {VT_BSTR}},      {L"Anything", {VT_BSTR, VT_I4, VT_BOOL}},
    {L"Counters", {VT_ARRAY | VT_I4}},
};

/// An accepted Put as text: `name:vt=value`.
inline std::wstring describe(const wchar_t* name, const VARIANT& value) {
  std::wstring text = std::wstring(name) + L":" + std::to_wstring(value.vt) + L"=";
  switch (value.vt) {
  case VT_BSTR:
    return text + std::wstring(value.bstrVal, SysStringLen(value.bstrVal));
  case VT_I4:
    return text + std::to_wstring(value.lVal);
  case VT_BOOL:
    return text + std::to_wstring(value.boolVal);
  default:
    return text + L"?";
  }
}

/// Fails the test when the provider calls a method that it must not call.
template <class Base>
class Unexpecting : public Base {
protected:
  HRESULT refuse() override {
    ADD_FAILURE() << "a method that the provider has no business with";
    return Base::refuse();
  }
};
using ClassObjectBase = Unexpecting<test_support::RefusingClassObject<Counted<IWbemClassObject>>>;

class FakeInstance : public ClassObjectBase {
public:
  explicit FakeInstance(const Properties& properties) : properties_(properties) {}

  HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE type) override {
    if (flags != 0 || type != 0 || name == nullptr || value == nullptr) {
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    const auto property = properties_.find(name);
    if (property == properties_.end()) {
      return win::wbemResult(WBEM_E_NOT_FOUND);
    }
    if (property->second.count(value->vt) == 0) {
      return win::wbemResult(WBEM_E_TYPE_MISMATCH);
    }
    puts.push_back(describe(name, *value));
    return WBEM_S_NO_ERROR;
  }

  std::vector<std::wstring> puts;

private:
  const Properties& properties_;
};

class FakeClass : public ClassObjectBase {
public:
  HRESULT STDMETHODCALLTYPE SpawnInstance(LONG flags, IWbemClassObject** instance) override {
    std::scoped_lock lock(mutex_);
    if (flags != 0 || instance == nullptr) {
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    EXPECT_EQ(*instance, nullptr);
    if (++spawns == failSpawnAt) {
      return win::wbemResult(WBEM_E_OUT_OF_MEMORY);
    }
    if (spawns == emptySpawnAt) {
      return WBEM_S_NO_ERROR;
    }
    instances.push_back(new FakeInstance(properties));
    instances.back()->AddRef();
    *instance = instances.back();
    return WBEM_S_NO_ERROR;
  }
  /// The references to spawned instances other than this object's own.
  long strayReferences() const {
    long stray = 0;
    for (const FakeInstance* instance : instances) {
      stray += instance->references() - 1;
    }
    return stray;
  }

  Properties properties = kDeviceProperties;
  int failSpawnAt = 0;
  int emptySpawnAt = 0;
  int spawns = 0;
  std::vector<FakeInstance*> instances;

private:
  std::mutex mutex_;
};

class FakeNamespace : public Unexpecting<test_support::RefusingServices<Counted<IWbemServices>>> {
public:
  HRESULT STDMETHODCALLTYPE GetObject(const BSTR path, LONG flags, IWbemContext* context,
                                      IWbemClassObject** object,
                                      IWbemCallResult** callResult) override {
    std::scoped_lock lock(mutex_);
    if (path == nullptr || flags != 0 || object == nullptr || callResult != nullptr) {
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    EXPECT_EQ(*object, nullptr);
    requested.push_back(std::wstring(path, SysStringLen(path)));
    contexts.push_back(context);
    if (failure != S_OK) {
      return failure;
    }
    const auto found = classes.find(requested.back());
    if (found == classes.end()) {
      return win::wbemResult(WBEM_E_NOT_FOUND);
    }
    if (found->second == nullptr) {
      return WBEM_S_NO_ERROR;
    }
    found->second->AddRef();
    *object = found->second;
    return WBEM_S_NO_ERROR;
  }

  std::map<std::wstring, FakeClass*> classes;
  HRESULT failure = S_OK;
  std::vector<std::wstring> requested;
  std::vector<IWbemContext*> contexts;

private:
  std::mutex mutex_;
};

/// The client's sink. Expects all objects first, then one final status.
class FakeResponseSink : public Counted<IWbemObjectSink> {
public:
  HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) override {
    EXPECT_TRUE(statuses.empty()) << "an object after the final status";
    EXPECT_EQ(count, 1);
    indicated.push_back(static_cast<FakeInstance*>(objects[0])->puts);
    const int call = static_cast<int>(indicated.size());
    if (onIndicate) {
      onIndicate();
    }
    return win::wbemResult(call == failIndicateAt || failIndicateAt < 0 ? WBEM_E_CALL_CANCELLED
                                                                        : WBEM_S_NO_ERROR);
  }
  HRESULT STDMETHODCALLTYPE SetStatus(LONG flags, HRESULT result, BSTR text,
                                      IWbemClassObject* object) override {
    EXPECT_TRUE(statuses.empty()) << "a second final status";
    EXPECT_EQ(flags, WBEM_STATUS_COMPLETE);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(object, nullptr);
    statuses.push_back(result);
    tracedBeforeStatus = recorded_trace::lines();
    if (onStatus) {
      onStatus();
    }
    return WBEM_S_NO_ERROR;
  }

  /// The number of the Indicate call that fails, from 1; -1: all.
  int failIndicateAt = 0;
  std::function<void()> onIndicate;
  std::function<void()> onStatus;
  std::vector<std::vector<std::wstring>> indicated;
  std::vector<HRESULT> statuses;
  std::vector<std::string> tracedBeforeStatus;
};

class FakeInitSink : public Counted<IWbemProviderInitSink> {
public:
  HRESULT STDMETHODCALLTYPE SetStatus(LONG status, LONG flags) override {
    statuses.emplace_back(status, flags);
    return WBEM_S_NO_ERROR;
  }
  std::vector<std::pair<LONG, LONG>> statuses;
};

/// The call context of one thread; impersonation sets the thread's token to `token`.
class FakeCall : public Counted<IServerSecurity> {
public:
  HRESULT STDMETHODCALLTYPE QueryBlanket(DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**,
                                         DWORD*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ImpersonateClient() override {
    if (failure != S_OK) {
      return failure;
    }
    ++impersonations;
    impersonating_ = true;
    SetThreadToken(nullptr, token);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RevertToSelf() override {
    ++reverts;
    impersonating_ = false;
    SetThreadToken(nullptr, nullptr);
    return S_OK;
  }
  BOOL STDMETHODCALLTYPE IsImpersonating() override { return impersonating_; }

  /// Null: impersonation succeeds, but leaves the thread without a token.
  HANDLE token = nullptr;
  HRESULT failure = S_OK;
  int impersonations = 0;
  int reverts = 0;

private:
  bool impersonating_ = false;
};

/// Makes `call` the call context of the calling thread for one scope.
class InCall {
public:
  explicit InCall(FakeCall& call) { EXPECT_EQ(CoSwitchCallContext(&call, &outer_), S_OK); }
  InCall(const InCall&) = delete;
  InCall& operator=(const InCall&) = delete;
  ~InCall() {
    IUnknown* inner = nullptr;
    CoSwitchCallContext(outer_, &inner);
  }

private:
  IUnknown* outer_ = nullptr;
};

/// A token of this process's user at an impersonation level. `denied`: without the groups
/// "administrators" and "authenticated users".
inline HANDLE callerToken(SECURITY_IMPERSONATION_LEVEL level, bool denied = false) {
  HANDLE process = nullptr;
  EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &process));
  HANDLE source = process;
  if (denied) {
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    BYTE users[SECURITY_MAX_SID_SIZE];
    DWORD length = sizeof administrators;
    EXPECT_TRUE(CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &length));
    length = sizeof users;
    EXPECT_TRUE(CreateWellKnownSid(WinAuthenticatedUserSid, nullptr, users, &length));
    SID_AND_ATTRIBUTES disabled[] = {{administrators, 0}, {users, 0}};
    EXPECT_TRUE(CreateRestrictedToken(process, 0, 2, disabled, 0, nullptr, 0, nullptr, &source));
  }
  HANDLE token = nullptr;
  EXPECT_TRUE(DuplicateTokenEx(source, TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, nullptr,
                               level, TokenImpersonation, &token));
  if (source != process) {
    CloseHandle(source);
  }
  CloseHandle(process);
  return token;
}

/// An object-path parser that finds two keys in every path. `failAt` names the step that fails.
class FakePathKeys : public Counted<IWbemPathKeyList> {
public:
  HRESULT WINAPI GetCount(ULONG* count) override {
    *count = 2;
    return failAt == "GetCount" ? win::wbemResult(WBEM_E_INVALID_OBJECT_PATH) : S_OK;
  }
  HRESULT WINAPI GetKey2(ULONG index, ULONG flags, ULONG* nameLength, LPWSTR name, VARIANT* value,
                         ULONG* type) override {
    if (flags != 0 || nameLength == nullptr || name == nullptr || value == nullptr ||
        type == nullptr || value->vt != VT_EMPTY) {
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    read.emplace_back(index, *nameLength);
    if (failAt == "GetKey2") {
      return win::wbemResult(WBEM_E_NOT_FOUND);
    }
    for (ULONG i = 0; i + 1 < *nameLength; ++i) {
      name[i] = L'k';
    }
    value->vt = VT_BSTR;
    value->bstrVal = SysAllocStringLen(L"1", 1);
    return S_OK;
  }
  HRESULT WINAPI SetKey(LPCWSTR, ULONG, ULONG, LPVOID) override { return E_NOTIMPL; }
  HRESULT WINAPI SetKey2(LPCWSTR, ULONG, ULONG, VARIANT*) override { return E_NOTIMPL; }
  HRESULT WINAPI GetKey(ULONG, ULONG, ULONG*, LPWSTR, ULONG*, LPVOID, ULONG*) override {
    return E_NOTIMPL;
  }
  HRESULT WINAPI RemoveKey(LPCWSTR, ULONG) override { return E_NOTIMPL; }
  HRESULT WINAPI RemoveAllKeys(ULONG) override { return E_NOTIMPL; }
  HRESULT WINAPI MakeSingleton(boolean) override { return E_NOTIMPL; }
  HRESULT WINAPI GetInfo(ULONG, ULONGLONG*) override { return E_NOTIMPL; }
  HRESULT WINAPI GetText(LONG, ULONG*, LPWSTR) override { return E_NOTIMPL; }

  std::string failAt;
  std::vector<std::pair<ULONG, ULONG>> read; // index, size of the name buffer
};

class FakePath : public Counted<IWbemPath> {
public:
  HRESULT WINAPI SetText(ULONG mode, LPCWSTR path) override {
    EXPECT_EQ(mode, 4U);
    text = path;
    return keys.failAt == "SetText" ? win::wbemResult(WBEM_E_INVALID_PARAMETER) : S_OK;
  }
  HRESULT WINAPI GetKeyList(IWbemPathKeyList** list) override {
    if (keys.failAt == "GetKeyList") {
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    keys.AddRef();
    *list = &keys;
    return S_OK;
  }
  HRESULT WINAPI GetText(LONG, ULONG*, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetInfo(ULONG, ULONGLONG*) override { return E_NOTIMPL; }
  HRESULT WINAPI SetServer(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetServer(ULONG*, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetNamespaceCount(ULONG*) override { return E_NOTIMPL; }
  HRESULT WINAPI SetNamespaceAt(ULONG, LPCWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetNamespaceAt(ULONG, ULONG*, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI RemoveNamespaceAt(ULONG) override { return E_NOTIMPL; }
  HRESULT WINAPI RemoveAllNamespaces() override { return E_NOTIMPL; }
  HRESULT WINAPI GetScopeCount(ULONG*) override { return E_NOTIMPL; }
  HRESULT WINAPI SetScope(ULONG, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI SetScopeFromText(ULONG, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetScope(ULONG, ULONG*, LPWSTR, IWbemPathKeyList**) override { return E_NOTIMPL; }
  HRESULT WINAPI GetScopeAsText(ULONG, ULONG*, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI RemoveScope(ULONG) override { return E_NOTIMPL; }
  HRESULT WINAPI RemoveAllScopes() override { return E_NOTIMPL; }
  HRESULT WINAPI SetClassName(LPCWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI GetClassName(ULONG*, LPWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI CreateClassPart(LONG, LPCWSTR) override { return E_NOTIMPL; }
  HRESULT WINAPI DeleteClassPart(LONG) override { return E_NOTIMPL; }
  BOOL WINAPI IsRelative(LPWSTR, LPWSTR) override { return FALSE; }
  BOOL WINAPI IsRelativeOrChild(LPWSTR, LPWSTR, LONG) override { return FALSE; }
  BOOL WINAPI IsLocal(LPCWSTR) override { return FALSE; }
  BOOL WINAPI IsSameClassName(LPCWSTR) override { return FALSE; }

  std::wstring text;
  FakePathKeys keys;
};

class FakePathFactory : public Counted<IClassFactory> {
public:
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    constexpr IID kPath = {
        0x3BC15AF2, 0x736C, 0x477E, {0x9E, 0x51, 0x23, 0x8A, 0xF8, 0x66, 0x7D, 0xCC}};
    EXPECT_EQ(outer, nullptr);
    if (iid != kPath) {
      return E_NOINTERFACE;
    }
    if (path.keys.failAt == "CreateInstance") {
      return E_OUTOFMEMORY;
    }
    path.AddRef();
    *object = &path;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
  ULONG STDMETHODCALLTYPE Release() override {
    if (onRelease) {
      onRelease();
    }
    return Counted::Release();
  }

  std::function<void()> onRelease;
  FakePath path;
};

/// The answers of the fake strategy. Set by the test before the calls; `onRequest` runs during the
/// exchange with the device server and may throw.
struct Script {
  model::InstanceList instances;
  std::uint32_t status = 0;
  std::function<void()> onRequest;

  std::mutex mutex;
  std::vector<std::string> requests; // "class|type|command|id"
  int liveAdapters = 0;
};
inline Script* script = nullptr;

class FakeXmlAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  FakeXmlAdapter() {
    std::scoped_lock lock(script->mutex);
    ++script->liveAdapters;
  }
  FakeXmlAdapter(const FakeXmlAdapter&) = delete;
  FakeXmlAdapter& operator=(const FakeXmlAdapter&) = delete;
  ~FakeXmlAdapter() override {
    std::scoped_lock lock(script->mutex);
    --script->liveAdapters;
  }
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override {
    std::scoped_lock lock(script->mutex);
    script->requests.push_back(className + "|" + type + "|" + cmd + "|" + id);
    out = "REQUEST";
    return 0;
  }
  std::uint32_t fromXML(std::string) override { return script->status; }
  std::string sendRequest(std::string) override {
    if (script->onRequest) {
      script->onRequest();
    }
    return "ANSWER";
  }
  model::InstanceList getInstances() override { return script->instances; }
  model::DeviceEvent fromXMLEvent(std::string) override { return {}; }
};

} // namespace fakes
