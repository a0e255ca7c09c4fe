#include "provider/CProvider_IWbemServices.h"
#include "provider/testing/ProviderFixture.h"

#include <wmiutils.h>

#include <thread>

using provider_testing::ProviderTest;
using test_support::PatchedImport;

namespace {

using win::wbemResult;

class ProviderObject : public ProviderTest {
protected:
  template <class Interface>
  void expectInterface(REFIID iid, Interface* expected) {
    void* object = nullptr;
    EXPECT_EQ(provider_->QueryInterface(iid, &object), S_OK);
    EXPECT_EQ(object, static_cast<void*>(expected));
    EXPECT_EQ(provider_->Release(), 1U) << "the interface was not counted";
  }
};

TEST_F(ProviderObject, ReferencesAreCountedFromZeroAndReturned) {
  auto* object = new CProvider_IWbemServices;
  EXPECT_EQ(object->AddRef(), 1U);
  EXPECT_EQ(object->AddRef(), 2U);
  EXPECT_EQ(object->Release(), 1U);
  EXPECT_EQ(object->Release(), 0U);
}

TEST_F(ProviderObject, ReferencesAreCountedAcrossThreads) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] {
      for (int i = 0; i < 10000; ++i) {
        provider_->AddRef();
        provider_->Release();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(provider_->AddRef(), 2U);
  EXPECT_EQ(provider_->Release(), 1U);
}

TEST_F(ProviderObject, LiveObjectsAreCounted) {
  EXPECT_EQ(CProvider_IWbemServices::liveObjects(), 1);
  auto* second = new CProvider_IWbemServices;
  EXPECT_EQ(CProvider_IWbemServices::liveObjects(), 2);
  second->AddRef();
  second->Release();
  EXPECT_EQ(CProvider_IWbemServices::liveObjects(), 1);
}

TEST_F(ProviderObject, EachInterfaceIsReturnedWithAReference) {
  expectInterface(IID_IUnknown, static_cast<IWbemServices*>(provider_));
  expectInterface(IID_IWbemServices, static_cast<IWbemServices*>(provider_));
  expectInterface(IID_IWbemPropertyProvider, static_cast<IWbemPropertyProvider*>(provider_));
  expectInterface(IID_IWbemProviderInit, static_cast<IWbemProviderInit*>(provider_));
  expectInterface(IID_IWbemShutdown, static_cast<IWbemShutdown*>(provider_));
}

TEST_F(ProviderObject, ThePrimaryInterfaceComesFirst) {
  EXPECT_EQ(static_cast<void*>(static_cast<IWbemServices*>(provider_)),
            static_cast<void*>(provider_));
  EXPECT_LT(static_cast<void*>(static_cast<IWbemServices*>(provider_)),
            static_cast<void*>(static_cast<IWbemPropertyProvider*>(provider_)));
  EXPECT_LT(static_cast<void*>(static_cast<IWbemPropertyProvider*>(provider_)),
            static_cast<void*>(static_cast<IWbemProviderInit*>(provider_)));
  EXPECT_LT(static_cast<void*>(static_cast<IWbemProviderInit*>(provider_)),
            static_cast<void*>(static_cast<IWbemShutdown*>(provider_)));
}

TEST_F(ProviderObject, EverySecondaryBaseForwardsToThePrimaryOne) {
  IUnknown* const bases[] = {static_cast<IWbemPropertyProvider*>(provider_),
                             static_cast<IWbemProviderInit*>(provider_),
                             static_cast<IWbemShutdown*>(provider_)};
  for (IUnknown* base : bases) {
    void* object = nullptr;
    EXPECT_EQ(base->QueryInterface(IID_IUnknown, &object), S_OK);
    EXPECT_EQ(object, static_cast<void*>(static_cast<IWbemServices*>(provider_)));
    EXPECT_EQ(base->Release(), 1U);
    EXPECT_EQ(base->AddRef(), 2U);
    EXPECT_EQ(base->Release(), 1U);
  }
}

// Kept: IID_IWbemEventProvider gives the IWbemServices interface.
TEST_F(ProviderObject, TheEventProviderInterfaceGivesThePrimaryOne) {
  constexpr IID kEventProvider = {
      0xE245105B, 0xB06E, 0x11D0, {0xAD, 0x61, 0x00, 0xC0, 0x4F, 0xD8, 0xFD, 0xFF}};
  expectInterface(kEventProvider, static_cast<IWbemServices*>(provider_));
}

TEST_F(ProviderObject, AnyOtherInterfaceIsRefused) {
  for (const IID& iid : {IID_IClassFactory, IID_IWbemObjectSink, IID_IWbemProviderInitSink}) {
    void* object = this;
    EXPECT_EQ(provider_->QueryInterface(iid, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
  }
  EXPECT_EQ(provider_->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
  EXPECT_EQ(provider_->AddRef(), 2U);
  provider_->Release();
}

// Called through the vtable slot, as by WMI. Each row: slot, name, result. The calling convention
// ignores excess arguments.
TEST_F(ProviderObject, EachUnimplementedOperationReturnsItsFixedCode) {
  using Method =
      HRESULT(STDMETHODCALLTYPE*)(IWbemServices*, void*, void*, void*, void*, void*, void*, void*);
  struct Row {
    int slot;
    const char* name;
    unsigned long result;
  };
  constexpr Row kRows[] = {
      {3, "OpenNamespace", 0},
      {4, "CancelAsyncCall", 0x80041024},
      {5, "QueryObjectSink", 0x80041009},
      {6, "GetObject", 0x80041009},
      {8, "PutClass", 0x80041009},
      {9, "PutClassAsync", 0x80041002},
      {10, "DeleteClass", 0x80041009},
      {11, "DeleteClassAsync", 0x80041024},
      {12, "CreateClassEnum", 0x80041009},
      {13, "CreateClassEnumAsync", 0x80041002},
      {14, "PutInstance", 0x80041009},
      {15, "PutInstanceAsync", 0x80041024},
      {16, "DeleteInstance", 0x80041009},
      {17, "DeleteInstanceAsync", 0x80041024},
      {18, "CreateInstanceEnum", 0x80041009},
      {20, "ExecQuery", 0x80041009},
      {21, "ExecQueryAsync", 0x80041024},
      {22, "ExecNotificationQuery", 0x80041009},
      {23, "ExecNotificationQueryAsync", 0x80041009},
      {24, "ExecMethod", 0x80041009},
      {25, "ExecMethodAsync", 0x80041024},
  };
  IWbemServices* const services = provider_;
  Method* const slots = *reinterpret_cast<Method**>(services);
  for (const Row& row : kRows) {
    EXPECT_EQ(
        slots[row.slot](services, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
        static_cast<HRESULT>(row.result))
        << row.slot << " " << row.name;
  }
  EXPECT_EQ(recorded_trace::lines(), std::vector<std::string>());
}

TEST_F(ProviderObject, OpenNamespaceTouchesNothing) {
  IWbemServices* const untouched = namespace_;
  IWbemServices* opened = untouched;
  IWbemCallResult* result = nullptr;
  const win::Bstr name(L"root\\cimv2");
  EXPECT_EQ(provider_->OpenNamespace(name.get(), 0, context_, &opened, &result), WBEM_S_NO_ERROR);
  EXPECT_EQ(opened, untouched);
  EXPECT_EQ(result, nullptr);
}

TEST_F(ProviderObject, PropertiesSucceedUntouchedWhateverTheMapping) {
  for (const wchar_t* mapping : {L"ExtraProperty1", L"ExtraProperty2", L"extraproperty1", L"", L"X",
                                 static_cast<const wchar_t*>(nullptr)}) {
    win::Bstr text;
    text.reset(SysAllocString(mapping));
    win::Variant value(win::Bstr(L"untouched"));
    const BSTR before = value.value().bstrVal;
    EXPECT_EQ(provider_->GetProperty(0, nullptr, nullptr, nullptr, text.get(), value.get()),
              WBEM_S_NO_ERROR);
    EXPECT_EQ(provider_->PutProperty(0, nullptr, nullptr, nullptr, text.get(), value.get()),
              WBEM_S_NO_ERROR);
    EXPECT_EQ(value.value().vt, VT_BSTR);
    EXPECT_EQ(value.value().bstrVal, before);
    EXPECT_STREQ(before, L"untouched");
  }
}

TEST_F(ProviderObject, ShutdownSucceedsWithoutEffect) {
  initialize();
  EXPECT_EQ(provider_->Shutdown(0, 1000, context_), WBEM_S_NO_ERROR);
  EXPECT_EQ(freeSlots(), 1);
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
}

TEST_F(ProviderObject, TheEventSinkIsNotCounted) {
  provider_->setEventSink(&sink_);
  EXPECT_EQ(sink_.references(), 1);
}

// --- Initialize ---

class Initialisation : public ProviderTest {
protected:
  HRESULT initializeTraced(UINT limit) {
    limit_ = limit;
    const PatchedImport configuration("GetPrivateProfileIntA", &readLimit);
    ++initialisations_;
    wchar_t nameSpace[] = L"root\\cimv2";
    return provider_->Initialize(nullptr, 0, nameSpace, nullptr, namespace_, context_, &initSink_);
  }
};

using InitSinkCalls = std::vector<std::pair<LONG, LONG>>;

TEST_F(Initialisation, ReportsToWmiAndFetchesTheEventClass) {
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(initSink_.statuses, (InitSinkCalls{{WBEM_S_INITIALIZED, 0}}));
  EXPECT_EQ(namespace_->requested, std::vector<std::wstring>{L"QuillmonEvent"});
  EXPECT_EQ(namespace_->contexts, std::vector<IWbemContext*>{context_});
  EXPECT_EQ(eventClass_->references(), 2);
  // The field's, the process-wide one and the test's own.
  EXPECT_EQ(namespace_->references(), 3);
  EXPECT_EQ(provider::providerState().namespaceServices, namespace_);
}

struct LimitRow {
  UINT configured;
  const char* traced;
};

TEST_F(Initialisation, TracesTheSizeOfTheSemaphore) {
  for (const LimitRow& row : {LimitRow{1, "1"}, LimitRow{4, "4"}, LimitRow{0, "0"},
                              LimitRow{static_cast<UINT>(-3), "-3"}}) {
    recorded_trace::clear();
    initializeTraced(row.configured);
    EXPECT_EQ(recorded_trace::lines(),
              std::vector<std::string>{
                  std::string(
                      "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: ") +
                  row.traced + " *\n"});
    EXPECT_EQ(provider::providerState().maxQueryThreads, row.configured);
  }
}

TEST_F(Initialisation, TheSemaphoreAdmitsAsManyAsConfigured) {
  for (const UINT limit : {1U, 4U, 100U}) {
    initialize(limit);
    EXPECT_EQ(freeSlots(), static_cast<int>(limit));
    EXPECT_FALSE(ReleaseSemaphore(provider::providerState().admissionSemaphore, 1, nullptr))
        << "the maximum is above the limit";
  }
}

TEST_F(Initialisation, ALimitOfZeroAdmitsNobody) {
  initialize(0);
  const HANDLE semaphore = provider::providerState().admissionSemaphore;
  ASSERT_NE(semaphore, nullptr);
  EXPECT_EQ(WaitForSingleObject(semaphore, 20), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(Initialisation, ANegativeLimitLeavesNoSemaphore) {
  EXPECT_EQ(initialize(static_cast<UINT>(-1)), WBEM_S_NO_ERROR);
  EXPECT_EQ(provider::providerState().admissionSemaphore, nullptr);
}

struct MutexCalls {
  static inline int created = 0;
};

TEST_F(Initialisation, EachCallCreatesASemaphoreAndAnOwnedMutexAndTheOldSemaphoreStaysUsable) {
  MutexCalls::created = 0;
  const PatchedImport patch(
      "CreateMutexA", +[](LPSECURITY_ATTRIBUTES security, BOOL owned, LPCSTR name) -> HANDLE {
        EXPECT_EQ(security, nullptr);
        EXPECT_TRUE(owned);
        EXPECT_EQ(name, nullptr);
        ++MutexCalls::created;
        return CreateMutexW(security, owned, nullptr);
      });
  initialize(2);
  const HANDLE first = provider::providerState().admissionSemaphore;
  initialize(3);
  EXPECT_EQ(MutexCalls::created, 2);
  EXPECT_NE(provider::providerState().admissionSemaphore, first);
  EXPECT_EQ(WaitForSingleObject(first, 0), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_TRUE(ReleaseSemaphore(first, 1, nullptr));
}

TEST_F(Initialisation, ASecondCallReplacesWithoutLeaking) {
  initialize();
  initialize();
  EXPECT_EQ(eventClass_->references(), 2);
  // Two process-wide ones, the field's and the test's own.
  EXPECT_EQ(namespace_->references(), 4);
  EXPECT_EQ(initSink_.statuses.size(), 2U);
}

struct EventHandles {
  static inline std::vector<HANDLE> created;
  static inline std::vector<HANDLE> closed;

  static HANDLE WINAPI create(LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL signalled,
                              LPCSTR name) {
    EXPECT_EQ(security, nullptr);
    EXPECT_FALSE(manual);
    EXPECT_FALSE(signalled);
    EXPECT_EQ(name, nullptr);
    created.push_back(CreateEventW(security, manual, signalled, nullptr));
    return created.back();
  }
  /// Records the handle instead of closing it.
  static BOOL WINAPI close(HANDLE handle) {
    closed.push_back(handle);
    return TRUE;
  }
};

TEST_F(Initialisation, TheEventHandleIsAutoResetNotSignalledAndClosedWhenReplacedAndAtTheEnd) {
  EventHandles::created.clear();
  EventHandles::closed.clear();
  {
    const PatchedImport create("CreateEventA", &EventHandles::create);
    const PatchedImport close("CloseHandle", &EventHandles::close);
    initialize();
    EXPECT_EQ(EventHandles::closed, std::vector<HANDLE>());
    initialize();
    ASSERT_EQ(EventHandles::created.size(), 2U);
    EXPECT_EQ(EventHandles::closed, std::vector<HANDLE>{EventHandles::created[0]});
    EXPECT_EQ(provider_->Release(), 0U);
    provider_ = nullptr;
  }
  EXPECT_EQ(EventHandles::closed, EventHandles::created);
  for (const HANDLE event : EventHandles::closed) {
    CloseHandle(event);
  }
}

TEST_F(Initialisation, WithoutTheEventHandleTheResultIsOutOfMemoryAndWmiIsStillNotified) {
  const PatchedImport patch(
      "CreateEventA", +[](LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCSTR) -> HANDLE { return nullptr; });
  EXPECT_EQ(initialize(), wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_EQ(initSink_.statuses, (InitSinkCalls{{WBEM_S_INITIALIZED, 0}}));
}

TEST_F(Initialisation, WithoutTheEventClassTheResultIsWmisAndWmiIsStillNotified) {
  namespace_->classes.erase(L"QuillmonEvent");
  EXPECT_EQ(initialize(), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(initSink_.statuses, (InitSinkCalls{{WBEM_S_INITIALIZED, 0}}));
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR) << "requests are served all the same";
}

struct Texts {
  static inline std::vector<std::wstring> allocated;
  static inline std::vector<std::wstring> freed;
  static inline std::wstring fail;

  static BSTR WINAPI allocate(const OLECHAR* text) {
    if (text == nullptr) {
      return nullptr;
    }
    allocated.push_back(text);
    return text == fail ? nullptr : SysAllocStringLen(text, static_cast<UINT>(std::wcslen(text)));
  }
  /// Records the text instead of freeing it.
  static void WINAPI free(BSTR text) {
    if (text != nullptr) {
      freed.push_back(text);
    }
  }
};

class InitialisationTexts : public Initialisation {
protected:
  InitialisationTexts() {
    Texts::allocated.clear();
    Texts::freed.clear();
    Texts::fail.clear();
  }
  const PatchedImport<decltype(SysAllocString)> allocate_{"SysAllocString", &Texts::allocate};
  const PatchedImport<decltype(SysFreeString)> free_{"SysFreeString", &Texts::free};
};

using WideTexts = std::vector<std::wstring>;

TEST_F(InitialisationTexts, AreNotCopiedFromACallerWhoCannotBeImpersonated) {
  initialize();
  EXPECT_EQ(Texts::allocated, (WideTexts{L"root\\cimv2", L"QuillmonEvent"}));
}

TEST_F(InitialisationTexts, AreUserLocaleAndNamespaceAndASecondCopyOfTheNamespace) {
  const fakes::InCall inside(call_);
  initialize();
  EXPECT_EQ(Texts::allocated,
            (WideTexts{L"tilluser", L"MS_409", L"root\\cimv2", L"root\\cimv2", L"QuillmonEvent"}));
}

TEST_F(InitialisationTexts, AreFreedByTheNextCallAndAtTheEnd) {
  const fakes::InCall inside(call_);
  initialize();
  EXPECT_EQ(Texts::freed, (WideTexts{L"root\\cimv2", L"QuillmonEvent"})) << "the first copy";
  Texts::freed.clear();
  initialize();
  EXPECT_EQ(Texts::freed,
            (WideTexts{L"root\\cimv2", L"MS_409", L"tilluser", L"root\\cimv2", L"QuillmonEvent"}));
  Texts::freed.clear();
  provider_->Release();
  provider_ = nullptr;
  EXPECT_EQ(Texts::freed, (WideTexts{L"tilluser", L"MS_409", L"root\\cimv2"}));
}

TEST_F(InitialisationTexts, StopAtTheFirstThatCannotBeCopied) {
  const fakes::InCall inside(call_);
  Texts::fail = L"MS_409";
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(Texts::allocated,
            (WideTexts{L"tilluser", L"MS_409", L"root\\cimv2", L"QuillmonEvent"}));
}

TEST_F(InitialisationTexts, WithoutMemoryForTheEventClassNameTheResultIsOutOfMemory) {
  Texts::fail = L"QuillmonEvent";
  EXPECT_EQ(initialize(), wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_EQ(initSink_.statuses, (InitSinkCalls{{WBEM_S_INITIALIZED, 0}}));
  EXPECT_TRUE(namespace_->requested.empty());
}

TEST_F(Initialisation, ImpersonatesOnceAndRevertsOnce) {
  const fakes::InCall inside(call_);
  initialize();
  EXPECT_EQ(call_.impersonations, 1);
  EXPECT_EQ(call_.reverts, 1);
}

TEST_F(Initialisation, RevertsACallerAtIdentificationLevelAtOnce) {
  const fakes::InCall inside(call_);
  CloseHandle(call_.token);
  call_.token = fakes::callerToken(SecurityIdentification);
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(call_.impersonations, 1);
  EXPECT_EQ(call_.reverts, 2);
}

TEST_F(Initialisation, ARefusedImpersonationDoesNotFailIt) {
  const fakes::InCall inside(call_);
  call_.failure = E_ACCESSDENIED;
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(initSink_.statuses, (InitSinkCalls{{WBEM_S_INITIALIZED, 0}}));
  EXPECT_EQ(call_.reverts, 1);
}

struct FactoryCalls {
  static inline int count = 0;
  /// Null: the class is not registered.
  static inline fakes::FakePathFactory* factory = nullptr;
  static HRESULT WINAPI get(REFCLSID classId, DWORD context, LPVOID server, REFIID iid,
                            LPVOID* object) {
    constexpr CLSID kPathParser = {
        0xCF4CC405, 0xE2C5, 0x4DDD, {0xB3, 0xCE, 0x5E, 0x75, 0x82, 0xD8, 0xC9, 0xFA}};
    EXPECT_EQ(classId, kPathParser);
    EXPECT_EQ(context, static_cast<DWORD>(CLSCTX_INPROC_SERVER));
    EXPECT_EQ(server, nullptr);
    ++count;
    *object = nullptr;
    return factory != nullptr ? factory->QueryInterface(iid, object) : REGDB_E_CLASSNOTREG;
  }
};

class PathParser : public Initialisation {
protected:
  PathParser() {
    FactoryCalls::count = 0;
    FactoryCalls::factory = new fakes::FakePathFactory;
    script_.instances = {{{"DeviceID", "string", "S1"}}};
  }
  ~PathParser() override {
    if (provider_ != nullptr) {
      provider_->Release();
      provider_ = nullptr;
    }
    if (FactoryCalls::factory != nullptr) {
      EXPECT_EQ(FactoryCalls::factory->references(), 1);
      EXPECT_EQ(FactoryCalls::factory->path.references(), 1);
      EXPECT_EQ(FactoryCalls::factory->path.keys.references(), 1);
    }
  }
  static std::string tracedKeys() {
    for (const std::string& line : recorded_trace::lines()) {
      if (line.find("Number of Keys") != std::string::npos) {
        return line;
      }
    }
    return {};
  }
  const PatchedImport<decltype(CoGetClassObject)> patch_{"CoGetClassObject", &FactoryCalls::get};
};

TEST_F(PathParser, IsRequestedOnceEvenIfMissing) {
  FactoryCalls::factory = nullptr;
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(initialize(), WBEM_S_NO_ERROR);
  EXPECT_EQ(FactoryCalls::count, 1);
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR) << "a retrieval does not need it";
  EXPECT_EQ(tracedKeys(), "GetIntanceByPath: Number of Keys: 0");
}

TEST_F(PathParser, IsReleasedAfterTheLiveObjectCount) {
  initialize();
  initialize();
  EXPECT_EQ(FactoryCalls::factory->references(), 2);
  static LONG liveAtTheEnd;
  liveAtTheEnd = -1;
  FactoryCalls::factory->onRelease = [] { liveAtTheEnd = CProvider_IWbemServices::liveObjects(); };
  provider_->Release();
  provider_ = nullptr;
  EXPECT_EQ(liveAtTheEnd, 0);
}

TEST_F(PathParser, ReadsEachKeyIntoABufferOfThePathsLengthPlusOne) {
  initialize();
  const std::wstring path = L"UPOS_Scanner.DeviceID=\"S1\"";
  EXPECT_EQ(retrieve(path.c_str()), WBEM_S_NO_ERROR);
  EXPECT_EQ(tracedKeys(), "GetIntanceByPath: Number of Keys: 2");
  EXPECT_EQ(FactoryCalls::factory->path.text, path);
  const ULONG room = static_cast<ULONG>(path.size() + 1);
  EXPECT_EQ(FactoryCalls::factory->path.keys.read,
            (std::vector<std::pair<ULONG, ULONG>>{{0, room}, {1, room}}));
}

TEST_F(PathParser, AFailureAtAnyStepDoesNotFailTheRetrieval) {
  initialize();
  for (const char* step : {"CreateInstance", "SetText", "GetKeyList", "GetCount"}) {
    SCOPED_TRACE(step);
    FactoryCalls::factory->path.keys.read.clear();
    FactoryCalls::factory->path.keys.failAt = step;
    recorded_trace::clear();
    sink_.statuses.clear();
    EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
    EXPECT_EQ(tracedKeys(), "GetIntanceByPath: Number of Keys: 0");
    EXPECT_TRUE(FactoryCalls::factory->path.keys.read.empty());
  }
  FactoryCalls::factory->path.keys.failAt = "GetKey2";
  recorded_trace::clear();
  sink_.statuses.clear();
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
  EXPECT_EQ(tracedKeys(), "GetIntanceByPath: Number of Keys: 2");
}

TEST_F(Initialisation, ToleratesMissingArguments) {
  const PatchedImport configuration("GetPrivateProfileIntA", &readLimit);
  EXPECT_EQ(provider_->Initialize(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &initSink_),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(initSink_.statuses.size(), 1U);
  ++initialisations_;
  EXPECT_EQ(provider_->Initialize(nullptr, 0, nullptr, nullptr, namespace_, nullptr, nullptr),
            WBEM_S_NO_ERROR);
}

TEST_F(Initialisation, ASecondCallWithoutServicesReleasesTheFirstOnes) {
  initialize();
  const PatchedImport configuration("GetPrivateProfileIntA", &readLimit);
  EXPECT_EQ(provider_->Initialize(nullptr, 0, nullptr, nullptr, nullptr, nullptr, &initSink_),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(namespace_->references(), 2);
  EXPECT_EQ(eventClass_->references(), 1);
}

} // namespace
