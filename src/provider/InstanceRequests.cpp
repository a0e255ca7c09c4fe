// The two operations that the provider implements: enumeration and retrieval. Each impersonates the
// caller, reverts, waits for an admission slot and asks the device server in the service's own
// security context.
#include "provider/AccessCheck.h"
#include "provider/Admission.h"
#include "provider/CProvider_IWbemServices.h"
#include "provider/ObjectPathText.h"
#include "provider/PropertyConversion.h"
#include "provider/ProviderState.h"
#include "strategy/UPOSAdapter.h"
#include "trace/UPOSLog.h"
#include "win/Boundary.h"

#include <wmiutils.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

using com::orvex::UPOSAdapter;
using Microsoft::WRL::ComPtr;
using provider::AdmissionSlot;
using provider::namesInstance;
using provider::ObjectPathText;
using provider::providerState;
using provider::readObjectPath;
using trace::UPOSLog;
using win::wbemResult;

namespace {

// The two differ by design: authenticated users (AU) may enumerate.
constexpr const char* kEnumerationAccess =
    "O:BAG:BAD:(A;;0x10000001;;;BA)(A;;0x10000001;;;SY)(A;;0x10000001;;;LA)(A;;0x10000001;;;SY)"
    "(A;;0x10000001;;;S-1-5-20)(A;;0x10000001;;;S-1-5-19)(A;;0x10000001;;;AU)";
constexpr const char* kRetrievalAccess =
    "O:BAG:BAD:(A;;0x10000001;;;BA)(A;;0x10000001;;;SY)(A;;0x10000001;;;LA)(A;;0x10000001;;;SY)"
    "(A;;0x10000001;;;S-1-5-20)(A;;0x10000001;;;S-1-5-19)";
constexpr DWORD kDesiredAccess = 1;
constexpr GENERIC_MAPPING kGenericMapping = {0, 0, 0x000F0001, 0x000F0001};

/// Reports the final status of an enumeration to the client.
class FinalStatus {
public:
  explicit FinalStatus(IWbemObjectSink* responseHandler) noexcept
      : responseHandler_(responseHandler) {}
  void report(HRESULT status) noexcept {
    reported_ = true;
    responseHandler_->SetStatus(WBEM_STATUS_COMPLETE, status, nullptr, nullptr);
  }
  bool reported() const noexcept { return reported_; }

private:
  IWbemObjectSink* responseHandler_;
  bool reported_ = false;
};

/// Gets the class object from WMI; `classObject` stays empty on failure.
HRESULT fetchClass(BSTR className, IWbemContext* context, ComPtr<IWbemClassObject>& classObject) {
  IWbemServices* const services = providerState().namespaceServices;
  if (services == nullptr) {
    return wbemResult(WBEM_E_FAILED);
  }
  return services->GetObject(className, 0, context, classObject.GetAddressOf(), nullptr);
}

HRESULT spawnInstance(IWbemClassObject* classObject, ComPtr<IWbemClassObject>& instance) {
  const HRESULT status = classObject->SpawnInstance(0, instance.GetAddressOf());
  return SUCCEEDED(status) && instance == nullptr ? wbemResult(WBEM_E_FAILED) : status;
}

/// Puts the fields of instance `index` of the adapter, each converted by its type word. A property
/// that WMI refuses is skipped silently; each of the others is traced with `traceFormat`.
void putFields(UPOSAdapter& adapter, std::int32_t index, std::int32_t fieldCount,
               provider::RequestTypes& types, IWbemClassObject* instance,
               std::string_view traceFormat) {
  std::string name; // reused for all fields
  std::string type;
  std::string text;
  std::wstring wideName;
  for (std::int32_t field = 0; field < fieldCount; ++field) {
    adapter.getPropertyItem(&name, index, field, 0);
    adapter.getPropertyItem(&type, index, field, 1);
    adapter.getPropertyItem(&text, index, field, 2);
    win::Variant value;
    provider::readProperty(types.typeOf(type), text, value);
    win::widenInThreadCodePage(name, wideName);
    if (SUCCEEDED(instance->Put(wideName.c_str(), 0, value.get(), 0))) {
      UPOSLog::trace(traceFormat, name, type, text);
    }
  }
}

/// Spawns one instance of the class per instance of the adapter and delivers it to the client.
/// Returns the last status.
HRESULT indicateInstances(UPOSAdapter& adapter, IWbemClassObject* classObject, HRESULT status,
                          IWbemObjectSink* responseHandler) {
  const std::int32_t count = adapter.getInstanceCount();
  provider::RequestTypes types(providerState().propertyTypes);
  for (std::int32_t index = 0; index < count; ++index) {
    ComPtr<IWbemClassObject> instance;
    status = spawnInstance(classObject, instance);
    if (FAILED(status)) {
      break;
    }
    putFields(adapter, index, adapter.selectInstance(index), types, instance.Get(),
              "\tPutField - Name: %s, Type: %s, Value: %s");
    IWbemClassObject* object = instance.Get();
    status = responseHandler->Indicate(1, &object);
  }
  return status;
}

HRESULT enumerate(BSTR className, IWbemObjectSink* responseHandler, FinalStatus& finalStatus) {
  std::optional<UPOSAdapter> adapter(std::in_place);

  win::LocalMemory descriptor = provider::securityDescriptor(kEnumerationAccess);
  if (!descriptor) {
    finalStatus.report(wbemResult(WBEM_E_ACCESS_DENIED));
    UPOSLog::trace("<<CreateInstanceEnumAsync>> * "
                   "ConvertStringSecurityDescriptorToSecurityDescriptor() FAILED!! *");
    return wbemResult(WBEM_E_ACCESS_DENIED);
  }

  const HRESULT impersonated = CoImpersonateClient();
  if (FAILED(impersonated)) {
    descriptor.reset();
    finalStatus.report(impersonated);
    // The text is fixed; no slot has been taken yet.
    UPOSLog::trace(
        "<<CreateInstanceEnumAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!");
    return impersonated;
  }
  const HRESULT access = provider::CheckAccess(descriptor.get(), kDesiredAccess, kGenericMapping);
  descriptor.reset();
  CoRevertToSelf();
  if (FAILED(access)) {
    // By design: a denied caller gets a successful, empty enumeration.
    finalStatus.report(WBEM_S_NO_ERROR);
    UPOSLog::trace("<<CreateInstanceEnumAsync>> * CheckAccess() DENIED!! quitting... * Semaphore "
                   "released!!");
    return WBEM_S_NO_ERROR;
  }

  AdmissionSlot slot(providerState().admissionSemaphore);
  if (!slot) {
    finalStatus.report(wbemResult(WBEM_E_FAILED));
    UPOSLog::trace("<<CreateInstanceEnumAsync>> *  Screen semaphore wait timed out!");
    return wbemResult(WBEM_E_FAILED);
  }

  if (className == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  const std::string narrowName = win::narrow(className);
  UPOSLog::trace("<<CreateInstanceEnumAsync>> *  Enumerating instances of '%s'", narrowName);
  std::uint32_t rc = 0;
  adapter->enumerateInstances(narrowName, &rc);
  UPOSLog::trace("<<CreateInstanceEnumAsync>> *  Enumeration of '%s' returned rc=%d", narrowName,
                 rc);
  if (rc != 0) {
    finalStatus.report(wbemResult(WBEM_E_FAILED));
    slot.release();
    return wbemResult(WBEM_E_FAILED);
  }

  UPOSLog::trace("<<CreateInstanceEnumAsync>> *  getting objects for %s\n", narrowName);
  ComPtr<IWbemClassObject> classObject;
  HRESULT status = fetchClass(className, nullptr, classObject);
  if (classObject != nullptr) {
    status = indicateInstances(*adapter, classObject.Get(), status, responseHandler);
  }

  adapter.reset();
  slot.release();
  finalStatus.report(status);
  return status;
}

} // namespace

HRESULT
CProvider_IWbemServices::CreateInstanceEnumAsync(BSTR className, LONG, IWbemContext*,
                                                 IWbemObjectSink* responseHandler) noexcept {
  UPOSLog::trace("<<<< CreateInstanceEnumAsync >>>>");
  if (responseHandler == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  FinalStatus finalStatus(responseHandler);
  const HRESULT result =
      win::comBoundary([&] { return enumerate(className, responseHandler, finalStatus); });
  if (!finalStatus.reported()) {
    finalStatus.report(result); // also without a class name, and after an exception
  }
  return result;
}

HRESULT CProvider_IWbemServices::GetObjectAsync(BSTR objectPath, LONG, IWbemContext* context,
                                                IWbemObjectSink* responseHandler) noexcept {
  UPOSLog::trace("<<<< GetObjectAsync >>>>");
  // Kept: the descriptor is built and discarded; a retrieval performs no access check.
  win::LocalMemory descriptor = provider::securityDescriptor(kRetrievalAccess);
  const HRESULT impersonated = CoImpersonateClient();
  if (FAILED(impersonated)) {
    descriptor.reset();
    UPOSLog::trace("<<GetObjectAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!");
    return impersonated;
  }
  descriptor.reset();
  CoRevertToSelf();

  if (responseHandler == nullptr) {
    UPOSLog::trace("<<GetObjectAsync>> * pResponseHandler is NULL * Semaphore released!!");
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }

  AdmissionSlot slot(providerState().admissionSemaphore);
  if (!slot) {
    responseHandler->SetStatus(WBEM_STATUS_COMPLETE, wbemResult(WBEM_E_FAILED), nullptr, nullptr);
    UPOSLog::trace("<<GetObjectAsync>> * Screen Semaphore wait timed out!");
    return wbemResult(WBEM_E_FAILED);
  }
  ComPtr<IWbemClassObject> instance;
  const HRESULT result = GetIntanceByPath(objectPath, instance.GetAddressOf(), context);
  slot.release();
  if (FAILED(result)) {
    UPOSLog::trace("<<GetObjectAsync>> * Get Instance Path failed");
    return result;
  }
  IWbemClassObject* object = instance.Get();
  responseHandler->Indicate(1, &object);
  responseHandler->SetStatus(WBEM_STATUS_COMPLETE, WBEM_S_NO_ERROR, nullptr, nullptr);
  return WBEM_S_NO_ERROR;
}

HRESULT CProvider_IWbemServices::GetIntanceByPath(LPCWSTR objectPath, IWbemClassObject** instance,
                                                  IWbemContext* context) noexcept {
  return win::comBoundary([&]() -> HRESULT {
    if (objectPath == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::string path = win::narrow(objectPath);
    const ObjectPathText names = readObjectPath(path);
    // Kept: the first character is zeroed before the trace, so the traced path is always empty.
    if (!path.empty()) {
      path.front() = '\0';
    }
    UPOSLog::trace("GetIntanceByPath: Path: '%s'", path.c_str());
    UPOSLog::trace("GetIntanceByPath: className='%s', deviceID='%s'", names.className,
                   names.deviceId);

    UPOSAdapter adapter;
    adapter.getInstance(names.className, names.deviceId);
    tracePathKeys(objectPath);

    // WMI would turn such a text into a nested retrieval, which would wait for this one's slot.
    if (namesInstance(names.className)) {
      return wbemResult(WBEM_E_FAILED);
    }
    const win::Bstr className = win::bstrInThreadCodePage(names.className);
    ComPtr<IWbemClassObject> classObject;
    const HRESULT found = fetchClass(className.get(), context, classObject);
    if (classObject == nullptr) {
      return FAILED(found) ? found : wbemResult(WBEM_E_FAILED);
    }
    ComPtr<IWbemClassObject> spawned;
    const HRESULT status = spawnInstance(classObject.Get(), spawned);
    if (FAILED(status)) {
      return status;
    }
    const std::int32_t fieldCount = adapter.selectInstance(0);
    UPOSLog::trace("GetIntanceByPath: Number of Props In Instance: %d", fieldCount);
    provider::RequestTypes types(providerState().propertyTypes);
    putFields(adapter, 0, fieldCount, types, spawned.Get(),
              "<<Put Field >> Name: %s, Type: %s, Value: %s");
    *instance = spawned.Detach();
    return wbemResult(fieldCount < 1 ? WBEM_E_FAILED : WBEM_S_NO_ERROR);
  });
}

/// Parses the path with WMI's parser, traces the number of its keys and reads them. The result is
/// not used: the instance is found by readObjectPath. A parser failure counts as no keys.
void CProvider_IWbemServices::tracePathKeys(LPCWSTR objectPath) const {
  ComPtr<IWbemPath> path;
  ComPtr<IWbemPathKeyList> keys;
  ULONG count = 0;
  if (pathParserFactory_ == nullptr ||
      FAILED(pathParserFactory_->CreateInstance(nullptr, IID_IWbemPath,
                                                reinterpret_cast<void**>(path.GetAddressOf()))) ||
      FAILED(path->SetText(WBEMPATH_CREATE_ACCEPT_ALL, objectPath)) ||
      FAILED(path->GetKeyList(keys.GetAddressOf())) || FAILED(keys->GetCount(&count))) {
    count = 0;
  }
  UPOSLog::trace("GetIntanceByPath: Number of Keys: %d", count);

  std::wstring name(std::wstring_view(objectPath).size() + 1, L'\0');
  for (ULONG key = 0; key < count; ++key) {
    auto length = static_cast<ULONG>(name.size());
    ULONG type = 0;
    win::Variant value;
    keys->GetKey2(key, 0, &length, name.data(), value.get(), &type);
  }
}
