#pragma once

#include <winsock2.h>
#include <windows.h>

#include <utility>

/// Owning types for Windows resources, one per close function and invalid value. Move-only. Not
/// thread-safe. Errors of closing are ignored.
namespace win {

/// `Traits`: Type, invalid(), close(Type) noexcept.
template <class Traits>
class Owned {
public:
  using Type = typename Traits::Type;

  Owned() noexcept = default;
  explicit Owned(Type value) noexcept : value_(value) {}
  Owned(Owned&& other) noexcept : value_(other.release()) {}
  Owned& operator=(Owned&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { reset(); }

  Type get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != Traits::invalid(); }
  Type release() noexcept { return std::exchange(value_, Traits::invalid()); }
  void reset(Type value = Traits::invalid()) noexcept {
    Type old = std::exchange(value_, value);
    if (old != Traits::invalid()) {
      Traits::close(old);
    }
  }
  /// For out parameters; closes the current resource first.
  Type* put() noexcept {
    reset();
    return &value_;
  }

private:
  Type value_ = Traits::invalid();
};

struct HandleTraits {
  using Type = HANDLE;
  static Type invalid() noexcept { return nullptr; }
  static void close(Type value) noexcept { CloseHandle(value); }
};
struct ServiceHandleTraits {
  using Type = SC_HANDLE;
  static Type invalid() noexcept { return nullptr; }
  static void close(Type value) noexcept { CloseServiceHandle(value); }
};
struct RegistryKeyTraits {
  using Type = HKEY;
  static Type invalid() noexcept { return nullptr; }
  static void close(Type value) noexcept { RegCloseKey(value); }
};
struct LocalMemoryTraits {
  using Type = void*;
  static Type invalid() noexcept { return nullptr; }
  static void close(Type value) noexcept { LocalFree(value); }
};
struct SocketTraits {
  using Type = SOCKET;
  static Type invalid() noexcept { return INVALID_SOCKET; }
  static void close(Type value) noexcept { closesocket(value); }
};

/// A kernel object whose invalid value is null: event, thread, token, semaphore.
using Handle = Owned<HandleTraits>;
using ServiceHandle = Owned<ServiceHandleTraits>;
using RegistryKey = Owned<RegistryKeyTraits>;
using LocalMemory = Owned<LocalMemoryTraits>;
using Socket = Owned<SocketTraits>;

/// Returns a resource that intentionally stays open until the process ends. The caller comments
/// why.
template <class Traits>
typename Traits::Type leakOnPurpose(Owned<Traits>&& owned) noexcept {
  return owned.release();
}

} // namespace win
