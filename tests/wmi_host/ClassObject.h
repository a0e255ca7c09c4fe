#pragma once

#include "Cim.h"
#include "ComObject.h"

#include <wbemcli.h>

#include <optional>

namespace wmi_host {

/// A value as the VARIANT that WMI documents for its CIM type; throws std::bad_alloc.
void toVariant(const Value& value, CimType type, VARIANT& result);
/// Nothing if the VARIANT is none that a property of this type takes.
std::optional<Value> fromVariant(const VARIANT& variant, CimType type, bool isArray);

/// A class or an instance. As with WMI's own, one thread at a time may change it.
class ClassObject final : public ComObject<IWbemClassObject> {
public:
  explicit ClassObject(Object object);

  /// The object behind an interface pointer; null if it is not one of this DLL's in this process.
  static const ClassObject* from(IUnknown* unknown) noexcept;
  const Object& object() const noexcept { return object_; }

  HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet** result) noexcept override;
  HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type,
                                LONG* flavor) noexcept override;
  HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG flags, VARIANT* value,
                                CIMTYPE type) noexcept override;
  HRESULT STDMETHODCALLTYPE Delete(LPCWSTR name) noexcept override;
  HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR qualifier, LONG flags, VARIANT* qualifierValue,
                                     SAFEARRAY** names) noexcept override;
  HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG flags) noexcept override;
  HRESULT STDMETHODCALLTYPE Next(LONG flags, BSTR* name, VARIANT* value, CIMTYPE* type,
                                 LONG* flavor) noexcept override;
  HRESULT STDMETHODCALLTYPE EndEnumeration() noexcept override;
  HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR property,
                                                    IWbemQualifierSet** result) noexcept override;
  HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject** copy) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObjectText(LONG flags, BSTR* text) noexcept override;
  HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG flags,
                                              IWbemClassObject** result) noexcept override;
  HRESULT STDMETHODCALLTYPE SpawnInstance(LONG flags, IWbemClassObject** result) noexcept override;
  HRESULT STDMETHODCALLTYPE CompareTo(LONG flags, IWbemClassObject* other) noexcept override;
  HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR name, BSTR* className) noexcept override;
  HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR ancestor) noexcept override;
  HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR name, LONG flags, IWbemClassObject** in,
                                      IWbemClassObject** out) noexcept override;
  HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR name, LONG flags, IWbemClassObject* in,
                                      IWbemClassObject* out) noexcept override;
  HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR name) noexcept override;
  HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG flags) noexcept override;
  HRESULT STDMETHODCALLTYPE NextMethod(LONG flags, BSTR* name, IWbemClassObject** in,
                                       IWbemClassObject** out) noexcept override;
  HRESULT STDMETHODCALLTYPE EndMethodEnumeration() noexcept override;
  HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR method,
                                                  IWbemQualifierSet** result) noexcept override;
  HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR method, BSTR* className) noexcept override;

private:
  ~ClassObject() override = default;
  void* findOther(REFIID iid) noexcept override;
  LONG flavorOf(const Property& property) const;
  std::vector<std::wstring> names(LONG flags) const;

  Object object_;
  std::optional<std::vector<std::wstring>> enumeration_; // the names still to come, last first
};

} // namespace wmi_host
