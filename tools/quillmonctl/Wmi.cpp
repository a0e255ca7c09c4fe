#include "quillmonctl/Wmi.h"

#include "quillmonctl/System.h"
#include "win/Automation.h"
#include "win/Boundary.h"

#include <fmt/format.h>

#include <chrono>

namespace ctl {
namespace {

using Microsoft::WRL::ComPtr;

constexpr LONG kStream = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;

void check(HRESULT result, const char* step) {
  if (FAILED(result)) {
    failHResult(step, result);
  }
}

/// A value without its array, as the class's type has it: uint32 arrives as a signed number.
Json scalar(VARIANT& value, CIMTYPE type) {
  switch (value.vt) {
  case VT_EMPTY:
  case VT_NULL:
    return nullptr;
  case VT_BOOL:
    return value.boolVal != VARIANT_FALSE;
  case VT_UI1:
    return value.bVal;
  case VT_I2:
    return value.iVal;
  case VT_I4:
    return type == CIM_UINT32 ? Json(static_cast<std::uint32_t>(value.lVal)) : Json(value.lVal);
  case VT_R4:
    return value.fltVal;
  case VT_R8:
    return value.dblVal;
  default:
    break;
  }
  win::Variant text;
  if (FAILED(VariantChangeType(text.get(), &value, 0, VT_BSTR))) {
    return nullptr; // an embedded object
  }
  return utf8({text.value().bstrVal, SysStringLen(text.value().bstrVal)});
}

Json valueOf(IWbemClassObject& object, const wchar_t* name) {
  win::Variant value;
  CIMTYPE type = CIM_EMPTY;
  check(object.Get(name, 0, value.get(), &type, nullptr), "reading a property (Get)");
  if ((value.value().vt & VT_ARRAY) == 0) {
    return scalar(*value.get(), type);
  }
  Json array = Json::array();
  SAFEARRAY* const elements = value.value().parray;
  LONG low = 0;
  LONG high = -1;
  SafeArrayGetLBound(elements, 1, &low);
  SafeArrayGetUBound(elements, 1, &high);
  for (LONG i = low; i <= high; ++i) {
    win::Variant element;
    element.get()->vt = static_cast<VARTYPE>(value.value().vt & ~VT_ARRAY);
    SafeArrayGetElement(elements, &i,
                        element.value().vt == VT_BSTR ? static_cast<void*>(&element.get()->bstrVal)
                                                      : static_cast<void*>(&element.get()->bVal));
    array.push_back(scalar(*element.get(), type & ~CIM_FLAG_ARRAY));
  }
  return array;
}

Json toJson(IWbemClassObject& object) {
  Json json = {{"__PATH", valueOf(object, L"__PATH")}, {"__CLASS", valueOf(object, L"__CLASS")}};
  check(object.BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY), "reading an object (BeginEnumeration)");
  for (;;) {
    BSTR raw = nullptr;
    const HRESULT result = object.Next(0, &raw, nullptr, nullptr, nullptr);
    const win::Bstr name = [&] {
      win::Bstr owned;
      owned.reset(raw);
      return owned;
    }();
    check(result, "reading an object (Next)");
    if (result == win::wbemResult(static_cast<WBEMSTATUS>(WBEM_S_NO_MORE_DATA))) {
      break;
    }
    json[utf8(name.text())] = valueOf(object, name.get());
  }
  object.EndEnumeration();
  return json;
}

} // namespace

ComLibrary::ComLibrary() {
  check(CoInitializeEx(nullptr, COINIT_MULTITHREADED), "starting COM (CoInitializeEx)");
  // Refused when somebody was first: then that one's settings hold.
  CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                       RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
}

ComLibrary::~ComLibrary() {
  CoUninitialize();
}

Wmi::Wmi(const wchar_t* nameSpace) {
  ComPtr<IWbemLocator> locator;
  check(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)),
        "creating WMI's locator (CoCreateInstance)");
  const win::Bstr name(nameSpace);
  check(locator->ConnectServer(name.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                               &services_),
        fmt::format("connecting to WMI's {} (ConnectServer)", utf8(nameSpace)).c_str());
  check(CoSetProxyBlanket(services_.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                          RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
        "securing the connection to WMI (CoSetProxyBlanket)");
}

Wmi::End Wmi::instances(const std::string& className, unsigned seconds, const Take& take) {
  const std::string step = fmt::format("listing {} through WMI", className);
  ComPtr<IEnumWbemClassObject> objects;
  const win::Bstr name(wide(className));
  check(services_->CreateInstanceEnum(name.get(), kStream, nullptr, &objects), step.c_str());
  for (;;) {
    ComPtr<IWbemClassObject> object;
    ULONG count = 0;
    const HRESULT result = objects->Next(static_cast<LONG>(seconds) * 1000, 1, &object, &count);
    check(result, step.c_str());
    if (count == 1) {
      if (!take(toJson(*object.Get()))) {
        return End::Complete;
      }
    } else {
      return result == win::wbemResult(static_cast<WBEMSTATUS>(WBEM_S_TIMEDOUT)) ? End::TimedOut
                                                                                 : End::Complete;
    }
  }
}

std::vector<Json> Wmi::list(const std::string& className, unsigned seconds) {
  std::vector<Json> all;
  const End end = instances(className, seconds, [&](const Json& object) {
    all.push_back(object);
    return true;
  });
  if (end == End::TimedOut) {
    throw Failure(fmt::format("listing {}: no answer within {} s", className, seconds),
                  "The device server takes requests and does not answer: restart it, or wait "
                  "longer (--timeout).",
                  ExitCode::TimedOut);
  }
  return all;
}

Json Wmi::object(const std::string& path) {
  ComPtr<IWbemClassObject> object;
  const win::Bstr text(wide(path));
  check(services_->GetObject(text.get(), 0, nullptr, &object, nullptr),
        fmt::format("fetching {} through WMI", path).c_str());
  return toJson(*object.Get());
}

bool Wmi::has(const std::string& path) {
  ComPtr<IWbemClassObject> object;
  const win::Bstr text(wide(path));
  const HRESULT result = services_->GetObject(text.get(), 0, nullptr, &object, nullptr);
  if (result == win::wbemResult(WBEM_E_NOT_FOUND) ||
      result == win::wbemResult(WBEM_E_INVALID_CLASS)) {
    return false;
  }
  check(result, fmt::format("looking for {} in WMI", path).c_str());
  return true;
}

Wmi::Events Wmi::subscribe(const std::string& query) {
  Events result;
  const win::Bstr language(L"WQL");
  const win::Bstr wql(wide(query));
  check(services_->ExecNotificationQuery(language.get(), wql.get(), kStream, nullptr,
                                         &result.events_),
        "subscribing to events through WMI (ExecNotificationQuery)");
  return result;
}

std::optional<Json> Wmi::Events::next(std::optional<Clock::time_point> end) {
  LONG milliseconds = -1; // WBEM_INFINITE, which MinGW declares unsigned
  if (end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - Clock::now());
    milliseconds = static_cast<LONG>(std::max<std::int64_t>(0, left.count()));
  }
  ComPtr<IWbemClassObject> event;
  ULONG count = 0;
  const HRESULT result = events_->Next(milliseconds, 1, &event, &count);
  check(result, "waiting for events from WMI (Next)");
  if (count == 1) {
    return toJson(*event.Get());
  }
  if (result != win::wbemResult(static_cast<WBEMSTATUS>(WBEM_S_TIMEDOUT))) {
    throw Failure("waiting for events from WMI: it has ended the subscription",
                  "Check that WMI and the service run (quillmonctl status), and subscribe again.");
  }
  return std::nullopt;
}

} // namespace ctl
