#include "Provider.h"

#include "BareXml.h"
#include "Sockets.h"
#include "TraceSwitch.h"
#include "win/Boundary.h"

#include <objbase.h>
#include <sddl.h>
#include <wmiutils.h>

#include <algorithm>
#include <cwchar>
#include <mutex>
#include <utility>

using Microsoft::WRL::ComPtr;

namespace bench::floor {
namespace {

constexpr const char* kMayEnumerate =
    "O:BAG:BAD:(A;;0x10000001;;;BA)(A;;0x10000001;;;SY)(A;;0x10000001;;;LA)(A;;0x10000001;;;SY)"
    "(A;;0x10000001;;;S-1-5-20)(A;;0x10000001;;;S-1-5-19)(A;;0x10000001;;;AU)";

std::u16string utf16(const std::wstring& text) {
  return {text.begin(), text.end()};
}

/// The trace lines of a request by design, without those of each receive, device and field. Those
/// of a field are looked for where the field is put: a look-up is dearer between other work than in
/// a row.
constexpr std::size_t kLinesOfEnumeration = 23;
constexpr std::size_t kLinesOfRetrieval = 18;
constexpr std::size_t kLinesOfCachedEnumeration = 20;
constexpr std::size_t kLinesOfCachedRetrieval = 15;
constexpr std::size_t kLinesOfReceive = 2;
constexpr std::size_t kLinesOfField =
    2; ///< one to read it, one to put it; a cached field is only put

/// The required security checks: impersonation, a security descriptor and, for an enumeration, one
/// access check. A retrieval discards the descriptor.
bool isCallerAllowed(bool isChecked) {
  if (FAILED(CoImpersonateClient())) {
    return false;
  }
  win::LocalMemory descriptor;
  win::Handle token;
  GENERIC_MAPPING mapping{0, 0, 0x000F0001, 0x000F0001};
  BYTE privileges[256];
  DWORD size = sizeof privileges;
  DWORD granted = 0;
  BOOL isAllowed = !isChecked;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorA(kMayEnumerate, SDDL_REVISION_1,
                                                           descriptor.put(), nullptr) &&
      isChecked && OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    AccessCheck(descriptor.get(), token.get(), 1, &mapping,
                reinterpret_cast<PRIVILEGE_SET*>(privileges), &size, &granted, &isAllowed);
  }
  CoRevertToSelf();
  return isAllowed != FALSE;
}

} // namespace

void setValue(win::Variant& value, const wchar_t* type, const wchar_t* text) {
  if (*type == L'u') {
    value.get()->vt = VT_I4;
    value.get()->lVal = static_cast<LONG>(std::wcstol(text, nullptr, 10));
  } else if (*type == L'b') {
    value.get()->vt = VT_BOOL;
    value.get()->boolVal = *text == L't' ? VARIANT_TRUE : VARIANT_FALSE;
  } else {
    value.get()->vt = VT_BSTR;
    value.get()->bstrVal = SysAllocString(text);
  }
}

void PreparedDevices::store(const std::wstring& id, PreparedDevice device) {
  const std::scoped_lock lock(mutex_);
  const auto [entry, isNew] = index_.try_emplace(id, devices_.size());
  if (isNew) {
    devices_.push_back(std::move(device));
    return;
  }
  PreparedDevice& stored = devices_[entry->second];
  while (!device.empty()) {
    const auto old = std::find_if(stored.begin(), stored.end(), [&](const PreparedField& field) {
      return field.name == device.front().name;
    });
    stored.splice(old, device, device.begin());
    if (old != stored.end()) {
      stored.erase(old);
    }
  }
}

void PreparedDevices::forEach(const std::function<void(PreparedDevice&)>& use) {
  const std::scoped_lock lock(mutex_);
  for (PreparedDevice& device : devices_) {
    use(device);
  }
}

HRESULT Provider::Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* services, IWbemContext*,
                             IWbemProviderInitSink* sink) noexcept {
  services_ = services;
  CoGetClassObject(CLSID_WbemDefPath, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                   reinterpret_cast<void**>(pathParserFactory_.ReleaseAndGetAddressOf()));
  return sink->SetStatus(WBEM_S_INITIALIZED, 0);
}

HRESULT Provider::CreateInstanceEnumAsync(const BSTR className, LONG, IWbemContext*,
                                          IWbemObjectSink* sink) noexcept {
  return win::comBoundary([&] {
    return isCallerAllowed(true) ? answer(u"enumerateInstances", className, {}, *sink)
                                 : win::wbemResult(WBEM_E_ACCESS_DENIED);
  });
}

HRESULT Provider::GetObjectAsync(const BSTR path, LONG, IWbemContext*,
                                 IWbemObjectSink* sink) noexcept {
  return win::comBoundary([&]() -> HRESULT {
    if (!isCallerAllowed(false)) {
      return win::wbemResult(WBEM_E_ACCESS_DENIED);
    }
    const std::wstring text(path);
    readKeys(text);
    const std::size_t begin = text.find(L'"') + 1;
    return answer(u"getInstance", text.substr(0, text.find(L'.')),
                  text.substr(begin, text.rfind(L'"') - begin), *sink);
  });
}

void Provider::readKeys(const std::wstring& path) const {
  ComPtr<IWbemPath> parser;
  ComPtr<IWbemPathKeyList> keys;
  if (FAILED(pathParserFactory_->CreateInstance(nullptr, IID_IWbemPath,
                                                reinterpret_cast<void**>(parser.GetAddressOf()))) ||
      FAILED(parser->SetText(WBEMPATH_CREATE_ACCEPT_ALL, path.c_str())) ||
      FAILED(parser->GetKeyList(&keys))) {
    return;
  }
  std::wstring name(path.size() + 1, L'\0');
  auto length = static_cast<ULONG>(name.size());
  ULONG type = 0;
  win::Variant value;
  keys->GetKey2(0, 0, &length, name.data(), value.get(), &type);
}

void Provider::traceLines(std::size_t count) const {
  if (stage_ >= Stage::lines) {
    lookForTraceSwitch(count);
  }
}

HRESULT Provider::answer(const char16_t* command, const std::wstring& className,
                         const std::wstring& id, IWbemObjectSink& sink) {
  HRESULT result = isProxy_ ? answerFromDevices(className, id, sink)
                            : answerFromServer(command, className, id, sink);
  sink.SetStatus(WBEM_STATUS_COMPLETE, result, nullptr, nullptr);
  return result;
}

HRESULT Provider::answerFromServer(const char16_t* command, const std::wstring& className,
                                   const std::wstring& id, IWbemObjectSink& sink) {
  static std::mutex xml; // by design the process handles one document at a time
  const Stage stage = stage_;
  if (stage < Stage::exchange) {
    return S_OK;
  }
  std::string request =
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\" ?><request><type>"
      "enumerateInstances</type><class>UPOS_Scanner</class></request>";
  if (stage >= Stage::library) {
    const std::scoped_lock turn(xml);
    const bare_xml::Library library;
    if (stage >= Stage::documents) {
      request = bare_xml::request(command, utf16(className), utf16(id));
    }
  }
  std::size_t receives = 0;
  const std::string document = exchange(requestPort_, request, receives);
  if (stage < Stage::library) {
    return S_OK;
  }
  const std::scoped_lock turn(xml);
  const bare_xml::Library library;
  if (stage < Stage::documents || document.empty()) {
    return document.empty() ? win::wbemResult(WBEM_E_FAILED) : S_OK;
  }
  bare_xml::Tree tree(document);
  if (stage < Stage::objects) {
    return S_OK;
  }
  ComPtr<IWbemClassObject> type;
  HRESULT result = services_->GetObject(win::Bstr(className).get(), 0, nullptr, &type, nullptr);
  traceLines((id.empty() ? kLinesOfEnumeration : kLinesOfRetrieval) + kLinesOfReceive * receives);
  for (const xercesc::DOMElement* device = tree.root().getFirstElementChild();
       device != nullptr && SUCCEEDED(result); device = device->getNextElementSibling()) {
    result = indicate(*type.Get(), sink, [&](IWbemClassObject& instance) {
      bare_xml::forEachField(*device,
                             [&](const char16_t* name, const char16_t* word, const char16_t* text) {
                               win::Variant value;
                               setValue(value, wide(word), wide(text));
                               instance.Put(wide(name), 0, value.get(), 0);
                               traceLines(kLinesOfField);
                             });
    });
  }
  return result;
}

HRESULT Provider::answerFromDevices(const std::wstring& className, const std::wstring& id,
                                    IWbemObjectSink& sink) {
  if (stage_ < Stage::objects) {
    return S_OK;
  }
  ComPtr<IWbemClassObject> type;
  HRESULT result = services_->GetObject(win::Bstr(className).get(), 0, nullptr, &type, nullptr);
  traceLines(id.empty() ? kLinesOfCachedEnumeration : kLinesOfCachedRetrieval);
  devices_.forEach([&](PreparedDevice& device) {
    traceLines(1);
    if (FAILED(result) || (!id.empty() && id != device.front().value.value().bstrVal)) {
      return;
    }
    result = indicate(*type.Get(), sink, [&](IWbemClassObject& instance) {
      for (PreparedField& field : device) {
        instance.Put(field.name.c_str(), 0, field.value.get(), 0);
        traceLines(1);
      }
    });
  });
  return result;
}

} // namespace bench::floor
