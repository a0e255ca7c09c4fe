#include "ClassObject.h"

#include "Settings.h"
#include "win/Automation.h"

#include <oleauto.h>

#include <new>

namespace wmi_host {
namespace {

// {6D1C35B2-54F4-4C57-9E43-1C0C9F0B7A61}: used in this DLL only.
constexpr GUID kClassObjectId = {
    0x6d1c35b2, 0x54f4, 0x4c57, {0x9e, 0x43, 0x1c, 0x0c, 0x9f, 0x0b, 0x7a, 0x61}};

/// The VARIANT type that WMI documents for a CIM type.
VARTYPE elementType(CimType type) {
  switch (type) {
  case CimType::uint8:
    return VT_UI1;
  case CimType::sint8:
  case CimType::sint16:
    return VT_I2;
  case CimType::uint16:
  case CimType::sint32:
  case CimType::uint32:
    return VT_I4;
  case CimType::boolean:
    return VT_BOOL;
  case CimType::sint64:
  case CimType::uint64:
  case CimType::string:
  case CimType::datetime:
  case CimType::reference:
    break;
  }
  return VT_BSTR;
}

LONG bits(const Scalar& value) {
  if (const auto* number = std::get_if<std::int64_t>(&value)) {
    return static_cast<LONG>(*number);
  }
  return static_cast<LONG>(std::get<std::uint64_t>(value));
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
    result.lVal = bits(value);
    break;
  case VT_BOOL:
    result.boolVal = std::get<bool>(value) ? VARIANT_TRUE : VARIANT_FALSE;
    break;
  default: // the text itself, or a 64-bit number in decimal
    const auto* text = std::get_if<std::wstring>(&value);
    result.bstrVal = win::Bstr(text != nullptr ? *text : literal(value)).release();
    break;
  }
}

/// VT_I4 holds the bits of an unsigned 32-bit number.
std::optional<Scalar> fromScalarVariant(const VARIANT& variant, CimType type) {
  switch (variant.vt) {
  case VT_BSTR: {
    std::wstring text(variant.bstrVal != nullptr ? variant.bstrVal : L"",
                      SysStringLen(variant.bstrVal));
    if (type == CimType::sint64 || type == CimType::uint64) {
      std::optional<Scalar> number = parseInteger(text);
      return number ? fit(type, *number) : std::nullopt;
    }
    return fit(type, text);
  }
  case VT_BOOL:
    return fit(type, variant.boolVal != VARIANT_FALSE);
  case VT_UI1:
    return fit(type, std::uint64_t{variant.bVal});
  case VT_I2:
    return fit(type, std::int64_t{variant.iVal});
  case VT_I4:
    if (type == CimType::uint32) {
      return std::uint64_t{static_cast<std::uint32_t>(variant.lVal)};
    }
    return fit(type, std::int64_t{variant.lVal});
  default:
    return std::nullopt;
  }
}

/// A value as the VARIANT that WMI documents for its CIM type; throws std::bad_alloc.
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
  SAFEARRAY* array = SafeArrayCreateVector(kind, 0, static_cast<ULONG>(value.items.size()));
  if (array == nullptr) {
    throw std::bad_alloc();
  }
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

/// Nothing on a type mismatch. Arrays are not supported: the product puts none.
std::optional<Value> fromVariant(const VARIANT& variant, const Property& property) {
  if (variant.vt == VT_NULL) {
    return Value();
  }
  std::optional<Scalar> item =
      property.isArray ? std::nullopt : fromScalarVariant(variant, property.type);
  return item ? std::optional(Value(*item)) : std::nullopt;
}

CIMTYPE declaredType(CimType type, bool isArray) {
  return static_cast<CIMTYPE>(type) | (isArray ? CIM_FLAG_ARRAY : 0);
}

} // namespace

const ClassObject* ClassObject::from(IUnknown* unknown) noexcept {
  void* found = nullptr;
  if (unknown == nullptr || FAILED(unknown->QueryInterface(kClassObjectId, &found))) {
    return nullptr;
  }
  unknown->Release(); // the caller holds a reference
  return static_cast<ClassObject*>(found);
}

void* ClassObject::findOther(REFIID iid) noexcept {
  return iid == kClassObjectId ? this : nullptr;
}

bool ClassObject::isLocal(const Property& property) const {
  return sameName(property.origin, object_.type->name);
}

HRESULT ClassObject::Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type,
                         LONG* flavor) noexcept {
  return comBoundary([&] {
    if (name == nullptr || flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    const auto give = [&](const Value& found, CimType cimType, bool isArray, LONG origin) {
      if (value != nullptr) {
        VariantInit(value);
        toVariant(found, cimType, *value);
      }
      if (type != nullptr) {
        *type = declaredType(cimType, isArray);
      }
      if (flavor != nullptr) {
        *flavor = origin;
      }
      return wbemResult(WBEM_S_NO_ERROR);
    };
    if (std::optional<std::size_t> index = object_.type->find(name)) {
      const Property& property = object_.type->properties[*index];
      return give(object_.values[*index], property.type, property.isArray,
                  isLocal(property) ? WBEM_FLAVOR_ORIGIN_LOCAL : WBEM_FLAVOR_ORIGIN_PROPAGATED);
    }
    if (std::optional<Value> found = systemProperty(object_, name)) {
      return give(*found, CimType::string, false, WBEM_FLAVOR_ORIGIN_SYSTEM);
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
      return wbemResult(std::wstring_view(name).starts_with(L"__") ? WBEM_E_READ_ONLY
                                                                   : WBEM_E_NOT_FOUND);
    }
    const Property& property = object_.type->properties[*index];
    if (type != 0 && type != declaredType(property.type, property.isArray)) {
      return wbemResult(WBEM_E_TYPE_MISMATCH);
    }
    std::optional<Value> fitted = value != nullptr ? fromVariant(*value, property) : Value();
    if (!fitted) {
      return wbemResult(WBEM_E_TYPE_MISMATCH);
    }
    object_.values[*index] = std::move(*fitted);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT ClassObject::BeginEnumeration(LONG flags) noexcept {
  if (flags != 0 && flags != WBEM_FLAG_NONSYSTEM_ONLY && flags != WBEM_FLAG_LOCAL_ONLY) {
    return wbemResult(WBEM_E_NOT_SUPPORTED);
  }
  // WMI includes the system properties for 0. Wine's wmic would print a column for each of them, so
  // they are left out, as Wine's own objects do.
  isLocalOnly_ = flags == WBEM_FLAG_LOCAL_ONLY;
  next_ = 0;
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT ClassObject::Next(LONG flags, BSTR* name, VARIANT* value, CIMTYPE* type,
                          LONG* flavor) noexcept {
  return comBoundary([&] {
    if (flags != 0) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (!next_) {
      return wbemResult(WBEM_E_UNEXPECTED);
    }
    const std::vector<Property>& properties = object_.type->properties;
    while (*next_ < properties.size() && isLocalOnly_ && !isLocal(properties[*next_])) {
      ++*next_;
    }
    if (*next_ == properties.size()) {
      return wbemResult(WBEM_S_NO_MORE_DATA);
    }
    win::Bstr found(properties[(*next_)++].name);
    HRESULT result = Get(found.get(), 0, value, type, flavor);
    if (SUCCEEDED(result) && name != nullptr) {
      *name = found.release();
    }
    return result;
  });
}

HRESULT ClassObject::EndEnumeration() noexcept {
  next_.reset();
  return wbemResult(WBEM_S_NO_ERROR);
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

HRESULT ClassObject::BeginMethodEnumeration(LONG) noexcept {
  return wbemResult(WBEM_S_NO_ERROR);
}
HRESULT ClassObject::NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) noexcept {
  return wbemResult(WBEM_S_NO_MORE_DATA);
}
HRESULT ClassObject::EndMethodEnumeration() noexcept {
  return wbemResult(WBEM_S_NO_ERROR);
}

} // namespace wmi_host
