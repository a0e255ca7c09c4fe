#include "provider/testing/ProviderFixture.h"
#include "strategy/StrategyFactory.h"

#include <sddl.h>

#include <chrono>
#include <condition_variable>
#include <new>
#include <stdexcept>
#include <thread>

using model::Instance;
using provider_testing::ProviderTest;
using test_support::PatchedImport;

namespace {

class FakeFactory : public com::orvex::StrategyFactory {
public:
  com::orvex::IUPOSXmlAdapter* createXmlAdapter() override { return new fakes::FakeXmlAdapter; }
  com::orvex::CommunicationLayer* createCommunicationLayer() override { return nullptr; }
};

} // namespace

// Replaces the real one.
com::orvex::StrategyFactory* com::orvex::getStrategyFactory() {
  static FakeFactory factory;
  return &factory;
}

namespace {

using win::wbemResult;
using Lines = std::vector<std::string>;
using Puts = std::vector<std::wstring>;
using Statuses = std::vector<HRESULT>;

const HRESULT kFailed = wbemResult(WBEM_E_FAILED);

/// Tests that apply to both requests.
enum class Request { Enumeration, Retrieval };

class InstanceRequests : public ProviderTest {
protected:
  InstanceRequests() { initialize(); }
  // Every request returns its slot.
  ~InstanceRequests() override {
    if (checkSlots_) {
      EXPECT_EQ(freeSlots(), static_cast<int>(limit_));
    }
  }

  static Instance device(const std::string& id) {
    return {{"DeviceID", "string", id}, {"ModelName", "string", "Model of " + id}};
  }
  HRESULT request(Request kind) { return kind == Request::Enumeration ? enumerate() : retrieve(); }

  bool checkSlots_ = true;
};

// --- Enumeration ---

using Enumeration = InstanceRequests;
using Retrieval = InstanceRequests;

TEST_F(Enumeration, DeliversOneInstancePerDeviceInOrder) {
  script_.instances = {device("S1"), device("S2"), device("S3")};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated, (std::vector<Puts>{{L"DeviceID:8=S1", L"ModelName:8=Model of S1"},
                                                {L"DeviceID:8=S2", L"ModelName:8=Model of S2"},
                                                {L"DeviceID:8=S3", L"ModelName:8=Model of S3"}}));
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
  EXPECT_EQ(script_.requests, (Lines{"UPOS_Scanner|request|enumerateInstances|"}));
  EXPECT_EQ(namespace_->requested.back(), L"UPOS_Scanner");
  EXPECT_EQ(namespace_->contexts.back(), nullptr) << "the class is fetched without a context";
}

TEST_F(Enumeration, TracesItsStepsInOrderAndEndsInOrder) {
  script_.instances = {device("S1")};
  int slotsAtTheEnd = -1;
  sink_.onStatus = [&] { slotsAtTheEnd = freeSlots(); };
  enumerate();
  const Lines expected = {
      "<<<< CreateInstanceEnumAsync >>>>",
      "adapter created",
      "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Scanner'",
      "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=0",
      "<<CreateInstanceEnumAsync>> *  getting objects for UPOS_Scanner\n",
      "\tPutField - Name: DeviceID, Type: string, Value: S1",
      "\tPutField - Name: ModelName, Type: string, Value: Model of S1",
      "adapter destroyed",
  };
  EXPECT_EQ(traced(), expected);
  // The adapter is destroyed and the slot is free before WMI gets the final status.
  EXPECT_EQ(traced(sink_.tracedBeforeStatus), expected);
  EXPECT_EQ(slotsAtTheEnd, 1);
}

TEST_F(Enumeration, OfAClassWithoutDevicesIsEmptyAndSuccessful) {
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_TRUE(sink_.indicated.empty());
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
}

TEST_F(Enumeration, ADeviceWithoutFieldsIsAnInstanceWithoutValues) {
  script_.instances = {{}, device("S2")};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated,
            (std::vector<Puts>{{}, {L"DeviceID:8=S2", L"ModelName:8=Model of S2"}}));
}

TEST_F(Enumeration, FailsWhenTheDeviceServerFails) {
  for (const std::uint32_t status : {1U, 0xFFFFFFFFU}) {
    recorded_trace::clear();
    sink_.statuses.clear();
    script_.status = status;
    int slotsAtTheEnd = -1;
    sink_.onStatus = [&] { slotsAtTheEnd = freeSlots(); };
    EXPECT_EQ(enumerate(), kFailed);
    EXPECT_EQ(sink_.statuses, (Statuses{kFailed}));
    EXPECT_EQ(slotsAtTheEnd, 0) << "the slot is given back after the status here";
    EXPECT_EQ(
        traced(),
        (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
               "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Scanner'",
               std::string("<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned "
                           "rc=") +
                   (status == 1 ? "1" : "-1"),
               "adapter destroyed"}));
  }
  EXPECT_EQ(namespace_->requested, std::vector<std::wstring>{L"QuillmonEvent"});
}

TEST_F(Enumeration, OfAClassUnknownToWmiEndsWithWmisCode) {
  script_.instances = {device("S1")};
  EXPECT_EQ(enumerate(L"UPOS_Toaster"), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(sink_.statuses, (Statuses{wbemResult(WBEM_E_NOT_FOUND)}));
  EXPECT_TRUE(sink_.indicated.empty());
  EXPECT_EQ(traced(),
            (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
                   "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Toaster'",
                   "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Toaster' returned rc=0",
                   "<<CreateInstanceEnumAsync>> *  getting objects for UPOS_Toaster\n",
                   "adapter destroyed"}));
}

TEST_F(Enumeration, AClassMissingWithoutAnErrorSpawnsNothing) {
  namespace_->classes[L"UPOS_Scanner"] = nullptr;
  script_.instances = {device("S1")};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_TRUE(sink_.indicated.empty());
}

TEST_F(Enumeration, BeforeInitializeFails) {
  provider::providerState().namespaceServices = nullptr;
  script_.instances = {device("S1")};
  EXPECT_EQ(enumerate(), kFailed);
  EXPECT_EQ(sink_.statuses, (Statuses{kFailed}));
}

TEST_F(Enumeration, EndsAtTheInstanceThatCannotBeSpawned) {
  script_.instances = {device("S1"), device("S2"), device("S3")};
  scanners_->failSpawnAt = 2;
  EXPECT_EQ(enumerate(), wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_EQ(sink_.indicated.size(), 1U);
  EXPECT_EQ(scanners_->spawns, 2);
  EXPECT_EQ(sink_.statuses, (Statuses{wbemResult(WBEM_E_OUT_OF_MEMORY)}));
}

TEST_F(Enumeration, AnInstanceMissingWithoutAnErrorEndsItToo) {
  script_.instances = {device("S1"), device("S2")};
  scanners_->emptySpawnAt = 1;
  EXPECT_EQ(enumerate(), kFailed);
  EXPECT_TRUE(sink_.indicated.empty());
}

// The status is that of the last instance, so earlier failures do not count.
TEST_F(Enumeration, AFailedIndicateCountsOnlyAtTheEnd) {
  script_.instances = {device("S1"), device("S2"), device("S3")};
  sink_.failIndicateAt = 2;
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated.size(), 3U);
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
}

TEST_F(Enumeration, AFailedLastIndicateIsTheStatus) {
  script_.instances = {device("S1"), device("S2")};
  sink_.failIndicateAt = -1;
  EXPECT_EQ(enumerate(), wbemResult(WBEM_E_CALL_CANCELLED));
  EXPECT_EQ(sink_.indicated.size(), 2U);
  EXPECT_EQ(sink_.statuses, (Statuses{wbemResult(WBEM_E_CALL_CANCELLED)}));
}

TEST_F(Enumeration, AClassNameBeyondAsciiTravelsInTheAnsiCodePage) {
  namespace_->classes[L"UPOS_Caf\u00E9"] = scanners_;
  EXPECT_EQ(enumerate(L"UPOS_Caf\u00E9"), WBEM_S_NO_ERROR);
  EXPECT_EQ(script_.requests,
            (Lines{win::narrow(L"UPOS_Caf\u00E9") + "|request|enumerateInstances|"}));
}

TEST_F(Enumeration, AnEmptyClassNameIsRequestedAndNotFound) {
  EXPECT_EQ(enumerate(L""), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(script_.requests, (Lines{"|request|enumerateInstances|"}));
}

TEST_F(Enumeration, WithoutAClassNameIsRefusedAndEnded) {
  const fakes::InCall inside(call_);
  EXPECT_EQ(provider_->CreateInstanceEnumAsync(nullptr, 0, nullptr, &sink_),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(sink_.statuses, (Statuses{wbemResult(WBEM_E_INVALID_PARAMETER)}));
  EXPECT_TRUE(script_.requests.empty());
}

TEST_F(Enumeration, WithoutAResponseHandlerIsRefused) {
  const fakes::InCall inside(call_);
  const win::Bstr name(L"UPOS_Scanner");
  EXPECT_EQ(provider_->CreateInstanceEnumAsync(name.get(), 0, nullptr, nullptr),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_TRUE(script_.requests.empty());
  EXPECT_EQ(traced(), (Lines{"<<<< CreateInstanceEnumAsync >>>>"}));
}

// --- Access ---

std::vector<std::string> descriptors;
BOOL WINAPI recordDescriptor(LPCSTR text, DWORD revision, PSECURITY_DESCRIPTOR* descriptor,
                             PULONG size) {
  EXPECT_EQ(revision, static_cast<DWORD>(SDDL_REVISION_1));
  descriptors.push_back(text);
  const std::wstring wide(text, text + std::strlen(text));
  return ConvertStringSecurityDescriptorToSecurityDescriptorW(wide.c_str(), revision, descriptor,
                                                              size);
}
BOOL WINAPI refuseDescriptor(LPCSTR, DWORD, PSECURITY_DESCRIPTOR* descriptor, PULONG) {
  *descriptor = nullptr;
  return FALSE;
}

// The two differ by design: only the enumeration is open to authenticated users.
TEST_F(InstanceRequests, BuildTheirDescriptors) {
  descriptors.clear();
  const PatchedImport patch("ConvertStringSecurityDescriptorToSecurityDescriptorA",
                            &recordDescriptor);
  enumerate();
  sink_.statuses.clear();
  retrieve();
  EXPECT_EQ(descriptors,
            (Lines{"O:BAG:BAD:(A;;0x10000001;;;BA)(A;;0x10000001;;;SY)(A;;0x10000001;;;LA)(A;;"
                   "0x10000001;;;SY)(A;;0x10000001;;;S-1-5-20)(A;;0x10000001;;;S-1-5-19)(A;;"
                   "0x10000001;;;AU)",
                   "O:BAG:BAD:(A;;0x10000001;;;BA)(A;;0x10000001;;;SY)(A;;0x10000001;;;LA)(A;;"
                   "0x10000001;;;SY)(A;;0x10000001;;;S-1-5-20)(A;;0x10000001;;;S-1-5-19)"}));
}

// A descriptor is freed on every path.
struct Freed {
  static inline std::vector<PSECURITY_DESCRIPTOR> built;
  static inline std::vector<HLOCAL> freed;
  static BOOL WINAPI build(LPCSTR, DWORD, PSECURITY_DESCRIPTOR* descriptor, PULONG) {
    *descriptor = LocalAlloc(LPTR, sizeof(SECURITY_DESCRIPTOR));
    built.push_back(*descriptor);
    return TRUE;
  }
  static HLOCAL WINAPI free(HLOCAL memory) {
    freed.push_back(memory);
    return nullptr;
  }
};

TEST_F(InstanceRequests, FreeTheirDescriptorsOnEachPath) {
  Freed::built.clear();
  Freed::freed.clear();
  const PatchedImport build("ConvertStringSecurityDescriptorToSecurityDescriptorA", &Freed::build);
  const PatchedImport free("LocalFree", &Freed::free);
  for (const HRESULT impersonation : {S_OK, E_ACCESSDENIED}) {
    call_.failure = impersonation;
    for (const Request kind : {Request::Enumeration, Request::Retrieval}) {
      sink_.statuses.clear();
      request(kind);
    }
  }
  EXPECT_EQ(Freed::built.size(), 4U);
  EXPECT_EQ(Freed::freed, Freed::built);
}

TEST_F(Enumeration, WithoutItsDescriptorIsDenied) {
  const PatchedImport patch("ConvertStringSecurityDescriptorToSecurityDescriptorA",
                            &refuseDescriptor);
  EXPECT_EQ(enumerate(), wbemResult(WBEM_E_ACCESS_DENIED));
  EXPECT_EQ(sink_.statuses, (Statuses{wbemResult(WBEM_E_ACCESS_DENIED)}));
  EXPECT_EQ(traced(sink_.tracedBeforeStatus),
            (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created"}));
  EXPECT_EQ(traced(), (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
                             "<<CreateInstanceEnumAsync>> * "
                             "ConvertStringSecurityDescriptorToSecurityDescriptor() FAILED!! *",
                             "adapter destroyed"}));
  EXPECT_EQ(call_.impersonations, 0);
  EXPECT_TRUE(script_.requests.empty());
}

TEST_F(Enumeration, ByACallerWhoCannotBeImpersonatedEndsWithThatCode) {
  call_.failure = E_ACCESSDENIED;
  EXPECT_EQ(enumerate(), E_ACCESSDENIED);
  EXPECT_EQ(sink_.statuses, (Statuses{E_ACCESSDENIED}));
  EXPECT_EQ(traced(sink_.tracedBeforeStatus),
            (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created"}));
  EXPECT_EQ(
      traced(),
      (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
             "<<CreateInstanceEnumAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!",
             "adapter destroyed"}));
  EXPECT_EQ(call_.reverts, 0);
  EXPECT_TRUE(script_.requests.empty());
}

TEST_F(Enumeration, OutsideACallEndsWithThePlatformsCode) {
  const win::Bstr name(L"UPOS_Scanner");
  const HRESULT outside = provider_->CreateInstanceEnumAsync(name.get(), 0, nullptr, &sink_);
  EXPECT_EQ(outside, RPC_E_CALL_COMPLETE);
  EXPECT_EQ(sink_.statuses, (Statuses{outside}));
}

// By design: a denied caller gets an empty enumeration, not an error.
TEST_F(Enumeration, ByADeniedCallerIsEmptyAndSuccessful) {
  script_.instances = {device("S1")};
  CloseHandle(call_.token);
  call_.token = fakes::callerToken(SecurityImpersonation, true);
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
  EXPECT_TRUE(sink_.indicated.empty());
  EXPECT_EQ(traced(sink_.tracedBeforeStatus),
            (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created"}));
  EXPECT_EQ(traced(), (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
                             "<<CreateInstanceEnumAsync>> * CheckAccess() DENIED!! quitting... * "
                             "Semaphore released!!",
                             "adapter destroyed"}));
  EXPECT_TRUE(script_.requests.empty());
  EXPECT_EQ(call_.reverts, 1);
}

TEST_F(Enumeration, ByACallerWithoutATokenIsDeniedInTheSameWay) {
  CloseHandle(call_.token);
  call_.token = nullptr;
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_TRUE(script_.requests.empty());
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
}

TEST_F(Enumeration, ByACallerAtIdentificationLevelIsServed) {
  CloseHandle(call_.token);
  call_.token = fakes::callerToken(SecurityIdentification);
  script_.instances = {device("S1")};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated.size(), 1U);
}

TEST_F(Enumeration, ByAnAnonymousCallerIsEmptyAndSuccessful) {
  CloseHandle(call_.token);
  call_.token = fakes::callerToken(SecurityAnonymous);
  script_.instances = {device("S1")};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_TRUE(sink_.indicated.empty());
}

TEST_F(InstanceRequests, AskTheDeviceServerInTheServicesOwnContext) {
  script_.instances = {device("S1")};
  for (const Request kind : {Request::Enumeration, Request::Retrieval}) {
    sink_.statuses.clear();
    bool impersonating = true;
    script_.onRequest = [&] { impersonating = call_.IsImpersonating(); };
    EXPECT_EQ(request(kind), WBEM_S_NO_ERROR);
    EXPECT_FALSE(impersonating);
  }
  EXPECT_EQ(call_.impersonations, 2);
  EXPECT_EQ(call_.reverts, 2);
}

// --- Trace ---

// Tracing may be switched on before any line, so every line must test the switch itself.
TEST_F(InstanceRequests, EachLineTestsTheTracesSwitch) {
  script_.instances = std::vector<Instance>(100, device("S1"));
  for (const Request kind : {Request::Enumeration, Request::Retrieval}) {
    sink_.statuses.clear();
    recorded_trace::clear();
    request(kind);
    const std::size_t lines = recorded_trace::lines().size();
    sink_.statuses.clear();
    recorded_trace::setSwitchedOn(false);
    const int before = recorded_trace::timesAsked();
    request(kind);
    const int asked = recorded_trace::timesAsked() - before;
    recorded_trace::setSwitchedOn(true);
    EXPECT_EQ(asked, static_cast<int>(lines));
  }
}

TEST_F(Enumeration, IsTracedFromTheDeviceOnDuringWhichTheTraceIsSwitchedOn) {
  script_.instances = {device("S1"), device("S2")};
  sink_.onIndicate = [] { recorded_trace::setSwitchedOn(true); };
  recorded_trace::setSwitchedOn(false);
  recorded_trace::clear();
  enumerate();
  EXPECT_EQ(traced(), (Lines{"\tPutField - Name: DeviceID, Type: string, Value: S2",
                             "\tPutField - Name: ModelName, Type: string, Value: Model of S2",
                             "adapter destroyed"}));
}

// --- Values ---

TEST_F(InstanceRequests, ConvertEachFieldByItsTypeWord) {
  script_.instances = {{{"DeviceID", "string", "S1"},
                        {"GoodScanCount", "uint32", "1234"},
                        {"HoursPoweredCount", "uint64", "2147483648"},
                        {"Enabled", "boolean", "true"},
                        {"InstallationDate", "datetime", "20240131120000.000000+060"},
                        {"Capabilities", "ArrayInt32", "1,2,3"},
                        {"Anything", "real32", "1.5"},
                        {"ModelName", "string", ""}}};
  const Puts expected = {L"DeviceID:8=S1",
                         L"GoodScanCount:3=1234",
                         L"HoursPoweredCount:8=2147483648",
                         L"Enabled:11=-1",
                         L"InstallationDate:8=20240131120000.000000+060",
                         L"Capabilities:8=1,2,3",
                         L"Anything:8=1.5",
                         L"ModelName:8="};
  for (const Request kind : {Request::Enumeration, Request::Retrieval}) {
    sink_.statuses.clear();
    sink_.indicated.clear();
    EXPECT_EQ(request(kind), WBEM_S_NO_ERROR);
    EXPECT_EQ(sink_.indicated, (std::vector<Puts>{expected}));
  }
}

TEST_F(InstanceRequests, SkipAPropertyThatWmiRefusesWithoutALine) {
  script_.instances = {{{"DeviceID", "string", "S1"},
                        {"NoSuchProperty", "string", "x"},
                        {"GoodScanCount", "uint32", "many"},
                        {"Counters", "ArrayInt32", "1,2"},
                        {"", "string", "x"},
                        {"Enabled", "boolean", "0"}}};
  for (const Request kind : {Request::Enumeration, Request::Retrieval}) {
    sink_.statuses.clear();
    sink_.indicated.clear();
    recorded_trace::clear();
    EXPECT_EQ(request(kind), WBEM_S_NO_ERROR);
    EXPECT_EQ(sink_.indicated, (std::vector<Puts>{{L"DeviceID:8=S1", L"Enabled:11=0"}}));
    const std::string prefix =
        kind == Request::Enumeration ? "\tPutField - Name: " : "<<Put Field >> Name: ";
    Lines puts;
    for (const std::string& line : traced()) {
      if (line.find("Name: ") != std::string::npos) {
        puts.push_back(line);
      }
    }
    EXPECT_EQ(puts, (Lines{prefix + "DeviceID, Type: string, Value: S1",
                           prefix + "Enabled, Type: boolean, Value: 0"}));
  }
}

TEST_F(InstanceRequests, WidenTextInTheThreadsCodePage) {
  script_.instances = {{{"ModelName", "string", "Caf\xE9 100%s"}}};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated, (std::vector<Puts>{{L"ModelName:8=" + win::widen("Caf\xE9 100%s")}}));
}

TEST_F(InstanceRequests, TolerateFieldsWithoutThreeStrings) {
  script_.instances = {{{}, {"DeviceID"}, {"ModelName", "string"}}};
  EXPECT_EQ(enumerate(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated.size(), 1U);
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
}

// --- Retrieval ---

TEST_F(Retrieval, DeliversTheInstance) {
  script_.instances = {device("S1")};
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated, (std::vector<Puts>{{L"DeviceID:8=S1", L"ModelName:8=Model of S1"}}));
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
  EXPECT_EQ(script_.requests, (Lines{"UPOS_Scanner|request|getInstance|S1"}));
  EXPECT_EQ(namespace_->contexts.back(), context_) << "the class is fetched with the context";
}

TEST_F(Retrieval, TracesItsStepsInOrder) {
  script_.instances = {device("S1")};
  int slotsAtTheEnd = -1;
  sink_.onStatus = [&] { slotsAtTheEnd = freeSlots(); };
  retrieve();
  EXPECT_EQ(traced(), (Lines{"<<<< GetObjectAsync >>>>", "GetIntanceByPath: Path: ''",
                             "GetIntanceByPath: className='UPOS_Scanner', deviceID='S1'",
                             "adapter created", "GetIntanceByPath: Number of Keys: 1",
                             "GetIntanceByPath: Number of Props In Instance: 2",
                             "<<Put Field >> Name: DeviceID, Type: string, Value: S1",
                             "<<Put Field >> Name: ModelName, Type: string, Value: Model of S1",
                             "adapter destroyed"}));
  EXPECT_EQ(slotsAtTheEnd, 1);
}

TEST_F(Retrieval, OfAMissingDeviceFailsWithoutAStatus) {
  EXPECT_EQ(retrieve(), kFailed);
  EXPECT_TRUE(sink_.indicated.empty());
  EXPECT_TRUE(sink_.statuses.empty());
  EXPECT_EQ(traced(),
            (Lines{"<<<< GetObjectAsync >>>>", "GetIntanceByPath: Path: ''",
                   "GetIntanceByPath: className='UPOS_Scanner', deviceID='S1'", "adapter created",
                   "GetIntanceByPath: Number of Keys: 1",
                   "GetIntanceByPath: Number of Props In Instance: 0", "adapter destroyed",
                   "<<GetObjectAsync>> * Get Instance Path failed"}));
}

TEST_F(Retrieval, OfADeviceWithoutFieldsFailsToo) {
  script_.instances = {{}};
  EXPECT_EQ(retrieve(), kFailed);
}

TEST_F(Retrieval, TakesTheFirstOfSeveral) {
  script_.instances = {device("S1"), device("S2")};
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated.size(), 1U);
  EXPECT_EQ(sink_.indicated[0][0], L"DeviceID:8=S1");
}

// A lookup has no status; only the number of fields decides.
TEST_F(Retrieval, IgnoresTheAnswersStatus) {
  script_.instances = {device("S1")};
  script_.status = 1;
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
}

struct PathRow {
  const wchar_t* path;
  const char* request;
};

TEST_F(Retrieval, RequestsByTheTextOfThePath) {
  script_.instances = {device("S1")};
  for (const PathRow& row :
       {PathRow{L"UPOS_Scanner.DeviceID=\"S\\\"1\"", "UPOS_Scanner|request|getInstance|S\\\"1"},
        PathRow{L"UPOS_Scanner.A=\"1\",B=\"2\"", "UPOS_Scanner|request|getInstance|1\",B=\"2"},
        PathRow{L"UPOS_Scanner", "UPOS_Scanner|request|getInstance|UPOS_Scanner"},
        PathRow{L"UPOS_Scanner.DeviceID=\"S1", "UPOS_Scanner|request|getInstance|S1"}}) {
    SCOPED_TRACE(row.request);
    script_.requests.clear();
    sink_.statuses.clear();
    EXPECT_EQ(retrieve(row.path), WBEM_S_NO_ERROR);
    EXPECT_EQ(script_.requests, (Lines{row.request}));
  }
}

struct KeysRow {
  const wchar_t* path;
  const char* line;
};

TEST_F(Retrieval, TracesTheNumberOfKeysThatThePlatformsParserSees) {
  script_.instances = {device("S1")};
  for (const KeysRow& row :
       {KeysRow{L"UPOS_Scanner", "GetIntanceByPath: Number of Keys: 0"},
        KeysRow{L"UPOS_Scanner.DeviceID=\"S1\"", "GetIntanceByPath: Number of Keys: 1"},
        KeysRow{L"UPOS_Scanner.A=\"1\",B=\"2\"", "GetIntanceByPath: Number of Keys: 2"}}) {
    sink_.statuses.clear();
    recorded_trace::clear();
    EXPECT_EQ(retrieve(row.path), WBEM_S_NO_ERROR);
    EXPECT_EQ(traced()[4], row.line);
  }
}

TEST_F(Retrieval, AnEmptyPathFindsNoClass) {
  EXPECT_EQ(retrieve(L""), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(script_.requests, (Lines{"|request|getInstance|"}));
  EXPECT_TRUE(sink_.statuses.empty());
}

TEST_F(Retrieval, OfAClassUnknownToWmiFailsWithWmisCode) {
  script_.instances = {device("S1")};
  EXPECT_EQ(retrieve(L"UPOS_Toaster.DeviceID=\"S1\""), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_TRUE(sink_.statuses.empty());
  const Lines lines = traced();
  EXPECT_EQ(lines.back(), "<<GetObjectAsync>> * Get Instance Path failed");
}

TEST_F(Retrieval, AClassMissingWithoutAnErrorFails) {
  namespace_->classes[L"UPOS_Scanner"] = nullptr;
  script_.instances = {device("S1")};
  EXPECT_EQ(retrieve(), kFailed);
}

TEST_F(Retrieval, ByAPathWithAnUnnamedKeyFailsWithoutAskingWmi) {
  script_.instances = {device("S1")};
  const std::size_t asked = namespace_->contexts.size();
  for (const wchar_t* path : {L"UPOS_Scanner=\"S1\"", L"UPOS_Scanner=5", L"UPOS_Scanner=@"}) {
    EXPECT_EQ(retrieve(path), kFailed);
    EXPECT_EQ(namespace_->contexts.size(), asked) << "WMI was asked for an instance as a class";
  }
}

TEST_F(Retrieval, AsksWmiForTheWholeClassTextAndFailsWithWmisCode) {
  script_.instances = {device("S1")};
  for (const wchar_t* path : {L"=", L"=5", L"UPOS_Scanner=", L"UPOS_Scanner=\"S.1\"", L"a=b=c",
                              L"UPOS Scanner=5", L"\\\\.\\root\\cimv2:5=5"}) {
    const std::size_t asked = namespace_->contexts.size();
    EXPECT_EQ(retrieve(path), wbemResult(WBEM_E_NOT_FOUND));
    EXPECT_EQ(namespace_->contexts.size(), asked + 1);
    EXPECT_EQ(namespace_->requested.back(),
              std::wstring_view(path).substr(0, std::wstring_view(path).find(L'.')));
  }
}

TEST_F(Retrieval, BeforeInitializeFails) {
  provider::providerState().namespaceServices = nullptr;
  EXPECT_EQ(retrieve(), kFailed);
}

TEST_F(Retrieval, ThatCannotSpawnFailsWithThatCode) {
  script_.instances = {device("S1")};
  scanners_->failSpawnAt = 1;
  EXPECT_EQ(retrieve(), wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_TRUE(sink_.indicated.empty());
  EXPECT_TRUE(sink_.statuses.empty());
}

TEST_F(Retrieval, ThatSpawnsNothingFails) {
  script_.instances = {device("S1")};
  scanners_->emptySpawnAt = 1;
  EXPECT_EQ(retrieve(), kFailed);
}

TEST_F(Retrieval, AFailedIndicateIsIgnored) {
  script_.instances = {device("S1")};
  sink_.failIndicateAt = 1;
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.statuses, (Statuses{WBEM_S_NO_ERROR}));
}

// Kept: a retrieval performs no access check; its descriptor is built and discarded.
TEST_F(Retrieval, ByADeniedCallerIsServed) {
  script_.instances = {device("S1")};
  CloseHandle(call_.token);
  call_.token = fakes::callerToken(SecurityImpersonation, true);
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
  EXPECT_EQ(sink_.indicated.size(), 1U);
}

TEST_F(Retrieval, WithoutItsDescriptorIsServed) {
  script_.instances = {device("S1")};
  const PatchedImport patch("ConvertStringSecurityDescriptorToSecurityDescriptorA",
                            &refuseDescriptor);
  EXPECT_EQ(retrieve(), WBEM_S_NO_ERROR);
}

TEST_F(Retrieval, ByACallerWhoCannotBeImpersonatedFailsWithThatCodeAndNoStatus) {
  call_.failure = E_ACCESSDENIED;
  EXPECT_EQ(retrieve(), E_ACCESSDENIED);
  EXPECT_TRUE(sink_.statuses.empty());
  EXPECT_EQ(traced(),
            (Lines{"<<<< GetObjectAsync >>>>",
                   "<<GetObjectAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!"}));
}

TEST_F(Retrieval, WithoutAResponseHandlerIsRefusedAfterTheCallerIsScreened) {
  const fakes::InCall inside(call_);
  const win::Bstr path(L"UPOS_Scanner.DeviceID=\"S1\"");
  EXPECT_EQ(provider_->GetObjectAsync(path.get(), 0, nullptr, nullptr),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_EQ(traced(),
            (Lines{"<<<< GetObjectAsync >>>>",
                   "<<GetObjectAsync>> * pResponseHandler is NULL * Semaphore released!!"}));
  EXPECT_EQ(call_.reverts, 1);
  call_.failure = E_ACCESSDENIED;
  EXPECT_EQ(provider_->GetObjectAsync(path.get(), 0, nullptr, nullptr), E_ACCESSDENIED);
}

TEST_F(Retrieval, WithoutAPathIsRefused) {
  const fakes::InCall inside(call_);
  EXPECT_EQ(provider_->GetObjectAsync(nullptr, 0, nullptr, &sink_),
            wbemResult(WBEM_E_INVALID_PARAMETER));
  EXPECT_TRUE(sink_.statuses.empty());
  EXPECT_TRUE(script_.requests.empty());
  EXPECT_EQ(traced(),
            (Lines{"<<<< GetObjectAsync >>>>", "<<GetObjectAsync>> * Get Instance Path failed"}));
}

// --- Exceptions ---

TEST_F(InstanceRequests, AnExceptionInTheEnumerationEndsItForTheClient) {
  struct Row {
    std::function<void()> raise;
    HRESULT result;
  };
  for (const Row& row :
       {Row{[] { throw std::bad_alloc(); }, wbemResult(WBEM_E_OUT_OF_MEMORY)},
        Row{[] { throw std::runtime_error("broken"); }, kFailed}, Row{[] { throw 7; }, kFailed}}) {
    script_.onRequest = row.raise;
    recorded_trace::clear();
    sink_.statuses.clear();
    int slotsAtTheEnd = -1;
    sink_.onStatus = [&] { slotsAtTheEnd = freeSlots(); };
    EXPECT_EQ(enumerate(), row.result);
    EXPECT_EQ(sink_.statuses, (Statuses{row.result}));
    EXPECT_EQ(slotsAtTheEnd, 1);
    EXPECT_EQ(traced(),
              (Lines{"<<<< CreateInstanceEnumAsync >>>>", "adapter created",
                     "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Scanner'",
                     "adapter destroyed"}));
  }
}

TEST_F(InstanceRequests, AnExceptionInTheRetrievalIsItsResult) {
  script_.onRequest = [] { throw std::bad_alloc(); };
  EXPECT_EQ(retrieve(), wbemResult(WBEM_E_OUT_OF_MEMORY));
  EXPECT_TRUE(sink_.statuses.empty());
  EXPECT_EQ(traced().back(), "<<GetObjectAsync>> * Get Instance Path failed");
  script_.onRequest = [] { throw std::runtime_error("broken"); };
  EXPECT_EQ(retrieve(), kFailed);
}

// --- Admission ---

/// Replaces the waits for the admission semaphore; other waits are unchanged.
struct AdmissionWaits {
  static inline std::vector<DWORD> timeouts;
  /// Real: the platform's wait, shortened.
  static inline DWORD answer = WAIT_TIMEOUT;
  static inline bool real = false;

  static DWORD WINAPI wait(HANDLE handle, DWORD timeout) {
    if (handle != provider::providerState().admissionSemaphore) {
      return WaitForSingleObjectEx(handle, timeout, FALSE);
    }
    timeouts.push_back(timeout);
    recorded_trace::setSwitchedOn(true); // switched on during the wait
    return real ? WaitForSingleObjectEx(handle, 50, FALSE) : answer;
  }
};

class Admission : public InstanceRequests {
protected:
  Admission() {
    AdmissionWaits::timeouts.clear();
    AdmissionWaits::real = true;
  }
};

struct TimeoutRow {
  Request kind;
  const char* first;
  const char* last;
};
constexpr TimeoutRow kTimeouts[] = {
    {Request::Enumeration, "<<<< CreateInstanceEnumAsync >>>>",
     "<<CreateInstanceEnumAsync>> *  Screen semaphore wait timed out!"},
    {Request::Retrieval, "<<<< GetObjectAsync >>>>",
     "<<GetObjectAsync>> * Screen Semaphore wait timed out!"},
};

TEST_F(Admission, ATimeOutIsTracedWhenTheTraceIsSwitchedOnDuringTheWait) {
  const HANDLE semaphore = provider::providerState().admissionSemaphore;
  ASSERT_EQ(WaitForSingleObject(semaphore, 0), static_cast<DWORD>(WAIT_OBJECT_0));
  for (const TimeoutRow& row : kTimeouts) {
    sink_.statuses.clear();
    recorded_trace::setSwitchedOn(false);
    recorded_trace::clear();
    const PatchedImport patch("WaitForSingleObject", &AdmissionWaits::wait);
    EXPECT_EQ(request(row.kind), kFailed);
    EXPECT_EQ(traced().front(), row.last);
  }
  ReleaseSemaphore(semaphore, 1, nullptr);
}

TEST_F(Admission, WaitsFiveMinutesAndThenFails) {
  const HANDLE semaphore = provider::providerState().admissionSemaphore;
  ASSERT_EQ(WaitForSingleObject(semaphore, 0), static_cast<DWORD>(WAIT_OBJECT_0));
  for (const TimeoutRow& row : kTimeouts) {
    sink_.statuses.clear();
    recorded_trace::clear();
    AdmissionWaits::timeouts.clear();
    {
      const PatchedImport patch("WaitForSingleObject", &AdmissionWaits::wait);
      EXPECT_EQ(request(row.kind), kFailed);
    }
    EXPECT_EQ(AdmissionWaits::timeouts, std::vector<DWORD>{300000});
    EXPECT_EQ(sink_.statuses, (Statuses{kFailed}));
    EXPECT_EQ(traced(), row.kind == Request::Enumeration
                            ? (Lines{row.first, "adapter created", row.last, "adapter destroyed"})
                            : (Lines{row.first, row.last}));
    EXPECT_EQ(sink_.tracedBeforeStatus.back().find("timed out"), std::string::npos)
        << "the client is told before the trace";
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), static_cast<DWORD>(WAIT_TIMEOUT))
        << "a request that was turned away gave a slot back";
  }
  EXPECT_TRUE(script_.requests.empty());
  ReleaseSemaphore(semaphore, 1, nullptr);
}

TEST_F(Admission, ALimitOfZeroRejectsEveryRequest) {
  initialize(0);
  const PatchedImport patch("WaitForSingleObject", &AdmissionWaits::wait);
  for (const TimeoutRow& row : kTimeouts) {
    for (int i = 0; i < 3; ++i) {
      sink_.statuses.clear();
      EXPECT_EQ(request(row.kind), kFailed);
    }
  }
  EXPECT_TRUE(script_.requests.empty());
}

// Kept: only a time-out rejects a request.
TEST_F(Admission, AFailedWaitAdmits) {
  script_.instances = {device("S1")};
  initialize(static_cast<UINT>(-1));
  checkSlots_ = false;
  for (const TimeoutRow& row : kTimeouts) {
    sink_.statuses.clear();
    EXPECT_EQ(request(row.kind), WBEM_S_NO_ERROR);
  }
  EXPECT_EQ(sink_.indicated.size(), 2U);
}

TEST_F(Admission, ASlotReturnsToTheSemaphoreItCameFrom) {
  const HANDLE first = provider::providerState().admissionSemaphore;
  script_.onRequest = [this] {
    initialize(1);
    EXPECT_EQ(freeSlots(), 1);
  };
  enumerate();
  EXPECT_EQ(freeSlots(), 1);
  EXPECT_EQ(WaitForSingleObject(first, 0), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(Admission, ManyRequestsReturnAllSlots) {
  script_.instances = {device("S1")};
  for (int i = 0; i < 200; ++i) {
    script_.status = i % 3 == 0 ? 1 : 0;
    scanners_->failSpawnAt = i % 5 == 0 ? scanners_->spawns + 1 : 0;
    sink_.statuses.clear();
    request(i % 2 == 0 ? Request::Enumeration : Request::Retrieval);
    ASSERT_EQ(freeSlots(), 1);
  }
}

/// Counts concurrent exchanges with the device server, and holds the first ones until as many as
/// are allowed are inside.
class Meeting {
public:
  explicit Meeting(int expected) : expected_(expected) {}
  void enter() {
    std::unique_lock lock(mutex_);
    most_ = std::max(most_, ++inside_);
    arrived_.notify_all();
    arrived_.wait_for(lock, std::chrono::seconds(20), [this] { return most_ >= expected_; });
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // lets an excess request arrive
    lock.lock();
    --inside_;
  }
  int most() const { return most_; }

private:
  const int expected_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  int inside_ = 0;
  int most_ = 0;
};

TEST_F(Admission, AsManyRequestsAsConfiguredAreServedAtOnceAndNeverMore) {
  for (const int limit : {1, 4}) {
    initialize(static_cast<UINT>(limit));
    script_.instances = {device("S1"), device("S2")};
    Meeting meeting(limit);
    script_.onRequest = [&] { meeting.enter(); };
    constexpr int kClients = 10;
    std::atomic<int> served = 0;
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
      clients.emplace_back([&, client] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        fakes::FakeCall call;
        call.token = fakes::callerToken(SecurityImpersonation);
        fakes::FakeResponseSink sink;
        {
          const fakes::InCall inside(call);
          HRESULT result;
          if (client % 2 == 0) {
            const win::Bstr name(L"UPOS_Scanner");
            result = provider_->CreateInstanceEnumAsync(name.get(), 0, nullptr, &sink);
          } else {
            const win::Bstr path(L"UPOS_Scanner.DeviceID=\"S1\"");
            result = provider_->GetObjectAsync(path.get(), 0, nullptr, &sink);
          }
          served += result == WBEM_S_NO_ERROR && sink.statuses == Statuses{WBEM_S_NO_ERROR} &&
                    sink.indicated.size() == (client % 2 == 0 ? 2U : 1U);
        }
        CloseHandle(call.token);
        CoUninitialize();
      });
    }
    for (std::thread& client : clients) {
      client.join();
    }
    EXPECT_EQ(served, kClients);
    EXPECT_EQ(meeting.most(), limit);
    EXPECT_EQ(freeSlots(), limit);
  }
}

} // namespace
