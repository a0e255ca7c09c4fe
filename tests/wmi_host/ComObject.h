#pragma once

#include "win/Boundary.h"

#include <windows.h>
#include <unknwn.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <atomic>

namespace wmi_host {

using win::wbemResult;

/// Takes over the one reference of a new object. MinGW's ComPtr::Attach would add another.
template <class Interface>
Microsoft::WRL::ComPtr<Interface> adopt(Interface* created) noexcept {
  Microsoft::WRL::ComPtr<Interface> owner;
  *owner.GetAddressOf() = created;
  return owner;
}

/// How many objects of this process, by kind, somebody still holds.
struct LiveCounts {
  std::atomic<long> objects = 0;  // class objects and qualifier sets
  std::atomic<long> services = 0; // namespaces and enumerators
  std::atomic<long> sinks = 0;    // response and event sinks
  std::atomic<long> others = 0;
};
inline LiveCounts liveCounts;

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
    *result = find(iid);
    if (*result == nullptr) {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++references_; }
  ULONG STDMETHODCALLTYPE Release() noexcept override {
    ULONG left = --references_;
    if (left == 0) {
      delete this;
    }
    return left;
  }

protected:
  explicit ComObject(std::atomic<long>& live) noexcept : live_(live) { ++live_; }
  virtual ~ComObject() { --live_; }

  /// Further interfaces.
  virtual void* findOther(REFIID) noexcept { return nullptr; }

private:
  void* find(REFIID iid) noexcept {
    void* found = nullptr;
    if (iid == IID_IUnknown || iid == __uuidof(First)) {
      found = static_cast<First*>(this);
    }
    ((iid == __uuidof(Rest) ? void(found = static_cast<Rest*>(this)) : void()), ...);
    return found != nullptr ? found : findOther(iid);
  }

  std::atomic<ULONG> references_ = 1;
  std::atomic<long>& live_;
};

} // namespace wmi_host
