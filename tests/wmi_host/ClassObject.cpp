#include "ClassObject.h"

#include "Settings.h"
#include "win/Automation.h"

#include <oleauto.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace wmi_host {
namespace {

using win::comBoundary;

// {6D1C35B2-54F4-4C57-9E43-1C0C9F0B7A61}: known to this DLL alone.
constexpr GUID kClassObjectId = {
    0x6d1c35b2, 0x54f4, 0x4c57, {0x9e, 0x43, 0x1c, 0x0c, 0x9f, 0x0b, 0x7a, 0x61}};

VARTYPE elementType(CimType type) {
  switch (type) {
  case CimType::uint8:
    return VT_UI1;
  case CimType::sint8:
  case CimType::sint16:
  case CimType::char16:
    return VT_I2;
  case CimType::uint16:
  case CimType::sint32:
  case CimType::uint32:
    return VT_I4;
  case CimType::real32:
    return VT_R4;
  case CimType::real64:
    return VT_R8;
  case CimType::boolean:
    return VT_BOOL;
  case CimType::sint64:
  case CimType::uint64:
  case CimType::string:
  case CimType::datetime:
  case CimType::reference:
    return VT_BSTR;
  }
  return VT_NULL;
}

std::uint64_t bits(const Scalar& value) {
  if (const auto* negative = std::get_if<std::int64_t>(&value)) {
    return static_cast<std::uint64_t>(*negative);
  }
  return std::get<std::uint64_t>(value);
}

BSTR newBstr(std::wstring_view text) {
  return win::Bstr(text).release();
}

void toVariant(const Scalar& value, CimType type, VARIANT& result) {
  result.vt = elementType(type);
  switch (result.vt) {
  case VT_UI1:
    result.bVal = static_cast<BYTE>(bits(value));
    break;
  case VT_I2:
    result.iVal = static_cast<SHORT>(bits(value));
    break;
  case VT_I4:
    result.lVal = static_cast<LONG>(bits(value));
    break;
  case VT_R4:
    result.fltVal = static_cast<float>(std::get<double>(value));
    break;
  case VT_R8:
    result.dblVal = std::get<double>(value);
    break;
  case VT_BOOL:
    result.boolVal = std::get<bool>(value) ? VARIANT_TRUE : VARIANT_FALSE;
    break;
  default: // the text itself, or a 64-bit number in decimal
    const auto* text = std::get_if<std::wstring>(&value);
    result.bstrVal = newBstr(text != nullptr ? *text : literal(value));
    break;
  }
}

/// The number or text of one VARIANT element; 32-bit unsigned numbers come as the same bits signed.
std::optional<Scalar> fromElement(VARTYPE kind, const void* data, CimType type) {
  switch (kind) {
  case VT_BSTR: {
    BSTR held = *static_cast<const BSTR*>(data);
    std::wstring text(held != nullptr ? held : L"", SysStringLen(held));
    if (type == CimType::sint64 || type == CimType::uint64) {
      std::optional<Scalar> number = parseInteger(text);
      return number ? fit(type, *number) : std::nullopt;
    }
    return fit(type, text);
  }
  case VT_BOOL:
    return fit(type, *static_cast<const VARIANT_BOOL*>(data) != VARIANT_FALSE);
  case VT_UI1:
    return fit(type, std::uint64_t{*static_cast<const BYTE*>(data)});
  case VT_I2:
    if (type == CimType::char16) {
      return std::uint64_t{static_cast<std::uint16_t>(*static_cast<const SHORT*>(data))};
    }
    return fit(type, std::int64_t{*static_cast<const SHORT*>(data)});
  case VT_I4:
    if (type == CimType::uint32) {
      return std::uint64_t{static_cast<std::uint32_t>(*static_cast<const LONG*>(data))};
    }
    return fit(type, std::int64_t{*static_cast<const LONG*>(data)});
  case VT_R4:
    return fit(type, double{*static_cast<const float*>(data)});
  case VT_R8:
    return fit(type, *static_cast<const double*>(data));
  default:
    return std::nullopt;
  }
}

SAFEARRAY* newArray(VARTYPE kind, std::size_t count) {
  SAFEARRAY* array = SafeArrayCreateVector(kind, 0, static_cast<ULONG>(count));
  if (array == nullptr) {
    throw std::bad_alloc();
  }
  return array;
}

SAFEARRAY* namesArray(const std::vector<std::wstring>& names) {
  SAFEARRAY* array = newArray(VT_BSTR, names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    auto index = static_cast<LONG>(i);
    win::Bstr name(names[i]);
    SafeArrayPutElement(array, &index, name.get());
  }
  return array;
}

/// A read-only copy of an object's, a class's or a property's qualifiers.
class QualifierSet final : public ComObject<IWbemQualifierSet> {
public:
  explicit QualifierSet(std::vector<Qualifier> qualifiers)
      : ComObject(liveCounts.objects), qualifiers_(std::move(qualifiers)) {}

  HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value,
                                LONG* flavor) noexcept override {
    return comBoundary([&] {
      if (name == nullptr || flags != 0) {
        return wbemResult(WBEM_E_INVALID_PARAMETER);
      }
      const Qualifier* found = findQualifier(qualifiers_, name);
      if (found == nullptr) {
        return wbemResult(WBEM_E_NOT_FOUND);
      }
      give(*found, nullptr, value, flavor);
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }
  HRESULT STDMETHODCALLTYPE Put(LPCWSTR, VARIANT*, LONG) noexcept override {
    return wbemResult(WBEM_E_NOT_SUPPORTED);
  }
  HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) noexcept override {
    return wbemResult(WBEM_E_NOT_SUPPORTED);
  }
  HRESULT STDMETHODCALLTYPE GetNames(LONG flags, SAFEARRAY** names) noexcept override {
    return comBoundary([&] {
      if (names == nullptr) {
        return wbemResult(WBEM_E_INVALID_PARAMETER);
      }
      std::vector<std::wstring> found;
      for (const Qualifier& qualifier : qualifiers_) {
        if (wanted(qualifier, flags)) {
          found.push_back(qualifier.name);
        }
      }
      *names = namesArray(found);
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }
  HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG flags) noexcept override {
    flags_ = flags;
    next_ = 0;
    return wbemResult(WBEM_S_NO_ERROR);
  }
  HRESULT STDMETHODCALLTYPE Next(LONG flags, BSTR* name, VARIANT* value,
                                 LONG* flavor) noexcept override {
    return comBoundary([&] {
      if (flags != 0) {
        return wbemResult(WBEM_E_INVALID_PARAMETER);
      }
      if (!next_) {
        return wbemResult(WBEM_E_UNEXPECTED);
      }
      while (*next_ < qualifiers_.size() && !wanted(qualifiers_[*next_], flags_)) {
        ++*next_;
      }
      if (*next_ >= qualifiers_.size()) {
        return wbemResult(WBEM_S_NO_MORE_DATA);
      }
      give(qualifiers_[(*next_)++], name, value, flavor);
      return wbemResult(WBEM_S_NO_ERROR);
    });
  }
  HRESULT STDMETHODCALLTYPE EndEnumeration() noexcept override {
    next_.reset();
    return wbemResult(WBEM_S_NO_ERROR);
  }

private:
  ~QualifierSet() override = default;

  static bool wanted(const Qualifier& qualifier, LONG flags) {
    bool isPropagated = (qualifier.flavor & Qualifier::kPropagated) != 0;
    return !((flags == WBEM_FLAG_LOCAL_ONLY && isPropagated) ||
             (flags == WBEM_FLAG_PROPAGATED_ONLY && !isPropagated));
  }
  static void give(const Qualifier& qualifier, BSTR* name, VARIANT* value, LONG* flavor) {
    if (value != nullptr) {
      VariantInit(value);
      wmi_host::toVariant(qualifier.value, qualifier.type, *value);
    }
    if (flavor != nullptr) {
      *flavor = qualifier.flavor;
    }
    if (name != nullptr) {
      *name = newBstr(qualifier.name);
    }
  }

  std::vector<Qualifier> qualifiers_;
  LONG flags_ = 0;
  std::optional<std::size_t> next_; // only between BeginEnumeration and EndEnumeration
};

} // namespace

void toVariant(const Value& value, CimType type, VARIANT& result) {
  if (value.isNull()) {
    result.vt = VT_NULL;
    return;
  }
  if (!value.isArray) {
    toVariant(value.items.front(), type, result);
    return;
  }
  VARTYPE kind = elementType(type);
  SAFEARRAY* array = newArray(kind, value.items.size());
  for (std::size_t i = 0; i < value.items.size(); ++i) {
    auto index = static_cast<LONG>(i);
    win::Variant item;
    toVariant(value.items[i], type, *item.get());
    void* data = kind == VT_BSTR ? static_cast<void*>(item.get()->bstrVal)
                                 : static_cast<void*>(&item.get()->bVal);
    SafeArrayPutElement(array, &index, data);
  }
  result.vt = static_cast<VARTYPE>(VT_ARRAY | kind);
  result.parray = array;
}

std::optional<Value> fromVariant(const VARIANT& variant, CimType type, bool isArray) {
  if (variant.vt == VT_NULL) {
    return Value();
  }
  if (((variant.vt & VT_ARRAY) != 0) != isArray) {
    return std::nullopt;
  }
  if (!isArray) {
    std::optional<Scalar> item = fromElement(variant.vt, &variant.bVal, type);
    return item ? std::optional(Value(*item)) : std::nullopt;
  }
  SAFEARRAY* array = variant.parray;
  LONG low = 0;
  LONG high = 0;
  void* data = nullptr;
  if (SafeArrayGetDim(array) != 1 || FAILED(SafeArrayGetLBound(array, 1, &low)) ||
      FAILED(SafeArrayGetUBound(array, 1, &high)) || FAILED(SafeArrayAccessData(array, &data))) {
    return std::nullopt;
  }
  Value value;
  value.isArray = true;
  bool fits = true;
  for (LONG i = 0; fits && i <= high - low; ++i) {
    const auto* element =
        static_cast<const BYTE*>(data) + static_cast<std::size_t>(i) * SafeArrayGetElemsize(array);
    std::optional<Scalar> item =
        fromElement(static_cast<VARTYPE>(variant.vt & ~VT_ARRAY), element, type);
    fits = item.has_value();
    if (fits) {
      value.items.push_back(std::move(*item));
    }
  }
  SafeArrayUnaccessData(array);
  return fits ? std::optional(value) : std::nullopt;
}

ClassObject::ClassObject(Object object)
    : ComObject(liveCounts.objects), object_(std::move(object)) {}

const ClassObject* ClassObject::from(IUnknown* unknown) noexcept {
  void* found = nullptr;
  if (unknown == nullptr || FAILED(unknown->QueryInterface(kClassObjectId, &found))) {
    return nullptr;
  }
  unknown->Release(); // the caller's reference keeps it
  return static_cast<ClassObject*>(found);
}

void* ClassObject::findOther(REFIID iid) noexcept {
  return iid == kClassObjectId ? this : nullptr;
}

LONG ClassObject::flavorOf(const Property& property) const {
  return sameName(property.origin, object_.type->name) ? WBEM_FLAVOR_ORIGIN_LOCAL
                                                       : WBEM_FLAVOR_ORIGIN_PROPAGATED;
}

std::vector<std::wstring> ClassObject::names(LONG flags) const {
  LONG origin = flags & WBEM_MASK_CONDITION_ORIGIN;
  std::vector<std::wstring> found;
  bool wantsKeys = (flags & WBEM_FLAG_KEYS_ONLY) != 0;
  bool wantsReferences = (flags & WBEM_FLAG_REFS_ONLY) != 0;
  if ((origin == 0 || origin == WBEM_FLAG_SYSTEM_ONLY) && !wantsKeys && !wantsReferences) {
    for (const auto& [name, type] : systemProperties()) {
      found.push_back(name);
    }
  }
  if (origin == WBEM_FLAG_SYSTEM_ONLY) {
    return found;
  }
  for (const Property& property : object_.type->properties) {
    bool isLocal = flavorOf(property) == WBEM_FLAVOR_ORIGIN_LOCAL;
    if ((origin == WBEM_FLAG_LOCAL_ONLY && !isLocal) ||
        (origin == WBEM_FLAG_PROPAGATED_ONLY && isLocal) || (wantsKeys && !property.isKey()) ||
        (wantsReferences && property.type != CimType::reference)) {
      continue;
    }
    found.push_back(property.name);
  }
  return found;
}

HRESULT ClassObject::GetQualifierSet(IWbemQualifierSet** result) noexcept {
  return comBoundary([&] {
    if (result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::vector<Qualifier> qualifiers = object_.type->qualifiers;
    if (object_.isInstance) {
      std::erase_if(qualifiers, [](const Qualifier& qualifier) {
        return (qualifier.flavor & Qualifier::kToInstance) == 0;
      });
    }
    *result = new QualifierSet(std::move(qualifiers));
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type,
                         LONG* flavor) noexcept {
  return comBoundary([&] {
    if (name == nullptr || flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (value != nullptr) {
      VariantInit(value);
    }
    if (std::optional<std::size_t> index = object_.type->find(name)) {
      const Property& property = object_.type->properties[*index];
      if (value != nullptr) {
        toVariant(object_.values[*index], property.type, *value);
      }
      if (type != nullptr) {
        *type = static_cast<CIMTYPE>(property.type) | (property.isArray ? CIM_FLAG_ARRAY : 0);
      }
      if (flavor != nullptr) {
        *flavor = flavorOf(property);
      }
      return wbemResult(WBEM_S_NO_ERROR);
    }
    for (const auto& [systemName, systemType] : systemProperties()) {
      if (!sameName(systemName, name)) {
        continue;
      }
      Value found = systemProperty(object_, name).value_or(Value());
      if (value != nullptr) {
        toVariant(found, systemType, *value);
      }
      if (type != nullptr) {
        *type = static_cast<CIMTYPE>(systemType) | (found.isArray ? CIM_FLAG_ARRAY : 0);
      }
      if (flavor != nullptr) {
        *flavor = WBEM_FLAVOR_ORIGIN_SYSTEM;
      }
      return wbemResult(WBEM_S_NO_ERROR);
    }
    return wbemResult(WBEM_E_NOT_FOUND);
  });
}

HRESULT ClassObject::Put(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE type) noexcept {
  return comBoundary([&] {
    if (name == nullptr || flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (settings::switchesAct() &&
        (settings::text(L"PutProperty").empty() || settings::listed(L"PutProperty", name))) {
      if (HRESULT failed = settings::failure(L"Put"); FAILED(failed)) {
        return failed;
      }
    }
    std::optional<std::size_t> index = object_.type->find(name);
    if (!index) {
      if (systemProperty(object_, name)) {
        return wbemResult(WBEM_E_READ_ONLY);
      }
      // A class could get a new property this way; no provider does that.
      return object_.isInstance ? wbemResult(WBEM_E_NOT_FOUND) : wbemResult(WBEM_E_NOT_SUPPORTED);
    }
    const Property& property = object_.type->properties[*index];
    CIMTYPE declared =
        static_cast<CIMTYPE>(property.type) | (property.isArray ? CIM_FLAG_ARRAY : 0);
    if (type != 0 && type != declared) {
      return wbemResult(WBEM_E_TYPE_MISMATCH);
    }
    std::optional<Value> fitted =
        value != nullptr ? fromVariant(*value, property.type, property.isArray) : Value();
    if (!fitted) {
      return wbemResult(WBEM_E_TYPE_MISMATCH);
    }
    object_.values[*index] = std::move(*fitted);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::Delete(LPCWSTR name) noexcept {
  return comBoundary([&] {
    if (name == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::optional<std::size_t> index = object_.type->find(name);
    if (!index) {
      return systemProperty(object_, name) ? wbemResult(WBEM_E_SYSTEM_PROPERTY)
                                           : wbemResult(WBEM_E_NOT_FOUND);
    }
    if (!object_.isInstance) {
      return wbemResult(WBEM_E_NOT_SUPPORTED);
    }
    object_.values[*index] = object_.type->properties[*index].defaultValue;
    return wbemResult(WBEM_S_RESET_TO_DEFAULT);
  });
}

HRESULT ClassObject::GetNames(LPCWSTR qualifier, LONG flags, VARIANT*,
                              SAFEARRAY** result) noexcept {
  return comBoundary([&] {
    if (result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    LONG condition = flags & WBEM_MASK_PRIMARY_CONDITION;
    if (condition == WBEM_FLAG_ONLY_IF_IDENTICAL) {
      return wbemResult(WBEM_E_NOT_SUPPORTED);
    }
    if ((qualifier != nullptr) != (condition != 0)) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::vector<std::wstring> found = names(flags);
    if (condition != 0) {
      std::erase_if(found, [&](const std::wstring& name) {
        std::optional<std::size_t> index = object_.type->find(name);
        bool has = index && findQualifier(object_.type->properties[*index].qualifiers, qualifier);
        return has != (condition == WBEM_FLAG_ONLY_IF_TRUE);
      });
    }
    *result = namesArray(found);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::BeginEnumeration(LONG flags) noexcept {
  return comBoundary([&] {
    // Wine's wmic shows as columns whatever this yields, so without SYSTEM_ONLY there is no system
    // property here, as with Wine's own objects; WMI lists them for 0 too.
    enumeration_ =
        names((flags & WBEM_MASK_CONDITION_ORIGIN) == 0 ? flags | WBEM_FLAG_NONSYSTEM_ONLY : flags);
    std::reverse(enumeration_->begin(), enumeration_->end());
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::Next(LONG flags, BSTR* name, VARIANT* value, CIMTYPE* type,
                          LONG* flavor) noexcept {
  return comBoundary([&] {
    if (flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (!enumeration_) {
      return wbemResult(WBEM_E_UNEXPECTED);
    }
    if (enumeration_->empty()) {
      return wbemResult(WBEM_S_NO_MORE_DATA);
    }
    win::Bstr next(enumeration_->back());
    enumeration_->pop_back();
    HRESULT result = Get(next.get(), 0, value, type, flavor);
    if (SUCCEEDED(result) && name != nullptr) {
      *name = next.release();
    }
    return result;
  });
}

HRESULT ClassObject::EndEnumeration() noexcept {
  enumeration_.reset();
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT ClassObject::GetPropertyQualifierSet(LPCWSTR name, IWbemQualifierSet** result) noexcept {
  return comBoundary([&] {
    if (name == nullptr || result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::optional<std::size_t> index = object_.type->find(name);
    if (!index) {
      return systemProperty(object_, name) ? wbemResult(WBEM_E_SYSTEM_PROPERTY)
                                           : wbemResult(WBEM_E_NOT_FOUND);
    }
    const Property& property = object_.type->properties[*index];
    std::vector<Qualifier> qualifiers = property.qualifiers;
    qualifiers.push_back({L"CIMTYPE", CimType::string, Value(property.cimType),
                          Qualifier::kToInstance | Qualifier::kToSubclass});
    *result = new QualifierSet(std::move(qualifiers));
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::Clone(IWbemClassObject** copy) noexcept {
  return comBoundary([&] {
    if (copy == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *copy = new ClassObject(object_);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::GetObjectText(LONG, BSTR* text) noexcept {
  return comBoundary([&] {
    if (text == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *text = newBstr(object_.mof());
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::SpawnDerivedClass(LONG, IWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}

HRESULT ClassObject::SpawnInstance(LONG flags, IWbemClassObject** result) noexcept {
  return comBoundary([&] {
    if (flags != 0 || result == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *result = nullptr;
    if (HRESULT failed = settings::failure(L"SpawnInstance"); FAILED(failed)) {
      return failed;
    }
    if (object_.type->isAbstract()) {
      return wbemResult(WBEM_E_INCOMPLETE_CLASS);
    }
    *result = new ClassObject(Object::instanceOf(object_.type));
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::CompareTo(LONG flags, IWbemClassObject* other) noexcept {
  return comBoundary([&] {
    if (other == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if ((flags & (WBEM_FLAG_IGNORE_CLASS | WBEM_FLAG_IGNORE_CASE)) != 0) {
      return wbemResult(WBEM_E_NOT_SUPPORTED);
    }
    const ClassObject* known = from(other);
    if (known == nullptr) {
      return wbemResult(WBEM_E_INVALID_OBJECT);
    }
    const Object& theirs = known->object();
    bool same = object_.isInstance == theirs.isInstance &&
                sameName(object_.type->name, theirs.type->name) && object_.values == theirs.values;
    return same ? wbemResult(WBEM_S_SAME) : wbemResult(WBEM_S_DIFFERENT);
  });
}

HRESULT ClassObject::GetPropertyOrigin(LPCWSTR name, BSTR* className) noexcept {
  return comBoundary([&] {
    if (name == nullptr || className == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    std::optional<std::size_t> index = object_.type->find(name);
    if (!index) {
      return systemProperty(object_, name) ? wbemResult(WBEM_E_SYSTEM_PROPERTY)
                                           : wbemResult(WBEM_E_NOT_FOUND);
    }
    *className = newBstr(object_.type->properties[*index].origin);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::InheritsFrom(LPCWSTR ancestor) noexcept {
  if (ancestor == nullptr) {
    return wbemResult(WBEM_E_INVALID_PARAMETER);
  }
  return object_.type->derivesFrom(ancestor) ? wbemResult(WBEM_S_NO_ERROR)
                                             : wbemResult(WBEM_S_FALSE);
}

// No class here has methods: the reader refuses them.
HRESULT ClassObject::GetMethod(LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}
HRESULT ClassObject::PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}
HRESULT ClassObject::DeleteMethod(LPCWSTR) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}
HRESULT ClassObject::BeginMethodEnumeration(LONG) noexcept {
  return wbemResult(WBEM_S_NO_ERROR);
}
HRESULT ClassObject::NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) noexcept {
  return wbemResult(WBEM_S_NO_MORE_DATA);
}
HRESULT ClassObject::EndMethodEnumeration() noexcept {
  return wbemResult(WBEM_S_NO_ERROR);
}
HRESULT ClassObject::GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}
HRESULT ClassObject::GetMethodOrigin(LPCWSTR, BSTR*) noexcept {
  return wbemResult(WBEM_E_NOT_FOUND);
}

} // namespace wmi_host
