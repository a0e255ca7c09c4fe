#pragma once

#include "Cim.h"
#include "LiveCounts.h"
#include "RefusingObjects.h"

#include <wbemcli.h>

#include <optional>

namespace wmi_host {

/// A class or an instance. As with WMI's own objects, only one thread at a time may change it.
class ClassObject final : public test_support::RefusingClassObject<ComObject<IWbemClassObject>> {
public:
  explicit ClassObject(Object object) : object_(std::move(object)) {}

  /// The implementation of an interface; null if this DLL did not create it in this process.
  static const ClassObject* from(IUnknown* unknown) noexcept;
  const Object& object() const noexcept { return object_; }

  HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type,
                                LONG* flavor) noexcept override;
  HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG flags, VARIANT* value,
                                CIMTYPE type) noexcept override;
  HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG flags) noexcept override;
  HRESULT STDMETHODCALLTYPE Next(LONG flags, BSTR* name, VARIANT* value, CIMTYPE* type,
                                 LONG* flavor) noexcept override;
  HRESULT STDMETHODCALLTYPE EndEnumeration() noexcept override;
  HRESULT STDMETHODCALLTYPE SpawnInstance(LONG flags, IWbemClassObject** result) noexcept override;
  // No class has methods, but Wine's scripting objects enumerate them.
  HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG flags) noexcept override;
  HRESULT STDMETHODCALLTYPE NextMethod(LONG flags, BSTR* name, IWbemClassObject** in,
                                       IWbemClassObject** out) noexcept override;
  HRESULT STDMETHODCALLTYPE EndMethodEnumeration() noexcept override;

private:
  ~ClassObject() override = default;
  void* findOther(REFIID iid) noexcept override;
  bool isLocal(const Property& property) const;

  const LiveCount live_{liveCounts.objects};
  Object object_;
  std::optional<std::size_t> next_; // only between BeginEnumeration and EndEnumeration
  bool isLocalOnly_ = false;
};

} // namespace wmi_host
