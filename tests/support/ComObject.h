#pragma once

#include <unknwn.h>
#include <wrl/client.h>

#include <atomic>

namespace test_support {

/// Takes over the one reference of a new object. MinGW's ComPtr::Attach would add another.
template <class Interface>
Microsoft::WRL::ComPtr<Interface> adopt(Interface* created) noexcept {
  Microsoft::WRL::ComPtr<Interface> owner;
  *owner.GetAddressOf() = created;
  return owner;
}

/// Reference counting and QueryInterface for the listed interfaces; IUnknown is the first one's.
/// Made with new and a count of 1.
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

  /// An interface that is not listed, or null.
  virtual void* findOther(REFIID) noexcept { return nullptr; }

private:
  std::atomic<ULONG> references_ = 1;
};

} // namespace test_support
