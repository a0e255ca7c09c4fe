#pragma once

#include <unknwn.h>
#include <wrl/client.h>

#include <atomic>

namespace test_support {

/// Takes ownership of a new object's reference. MinGW's ComPtr::Attach would add another one.
template <class Interface>
Microsoft::WRL::ComPtr<Interface> adopt(Interface* created) noexcept {
  Microsoft::WRL::ComPtr<Interface> owner;
  *owner.GetAddressOf() = created;
  return owner;
}

/// Implements IUnknown for an object that is created with new and one reference.
template <class First, class... Rest>
class ComObject : public First, public Rest... {
public:
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) noexcept override {
    if (result == nullptr) {
      return E_POINTER;
    }
    *result = iid == IID_IUnknown || iid == __uuidof(First) ? static_cast<First*>(this) : nullptr;
    ((iid == __uuidof(Rest) ? void(*result = static_cast<Rest*>(this)) : void()), ...);
    if (*result == nullptr) {
      *result = findOther(iid);
    }
    if (*result == nullptr) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() noexcept override {
    const ULONG left = --references_;
    if (left == 0) {
      delete this;
    }
    return left;
  }

protected:
  ComObject() = default;
  virtual ~ComObject() = default;

  /// The implementation of an interface that is not listed, or null.
  virtual void* findOther(REFIID) noexcept { return nullptr; }

private:
  std::atomic<ULONG> references_ = 1;
};

} // namespace test_support
