#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <string_view>
#include <utility>

/// Owning types for OLE automation strings and variants, and code page conversions. The service's
/// narrow text is in the system's ANSI code page.
/// Errors: conversions throw std::bad_alloc, std::length_error for a text longer than INT_MAX, and
/// std::system_error when the platform fails; they never return partial text.
namespace win {

/// Owns a BSTR; null reads as empty text.
class Bstr {
public:
  Bstr() noexcept = default;
  /// Copies `text`; throws std::bad_alloc.
  explicit Bstr(const wchar_t* text);
  explicit Bstr(std::wstring_view text);
  Bstr(Bstr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
  Bstr& operator=(Bstr&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  ~Bstr() { SysFreeString(value_); }

  BSTR get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != nullptr; }
  BSTR release() noexcept { return std::exchange(value_, nullptr); }
  void reset(BSTR value = nullptr) noexcept { SysFreeString(std::exchange(value_, value)); }
  std::wstring_view text() const noexcept {
    return value_ != nullptr ? std::wstring_view(value_, SysStringLen(value_))
                             : std::wstring_view();
  }

private:
  BSTR value_ = nullptr;
};

/// Owns a VARIANT.
class Variant {
public:
  Variant() noexcept { VariantInit(&value_); }
  /// A VT_BSTR that takes ownership of `text`.
  explicit Variant(Bstr text) noexcept : Variant() {
    value_.vt = VT_BSTR;
    value_.bstrVal = text.release();
  }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant() { VariantClear(&value_); }

  VARIANT* get() noexcept { return &value_; }
  const VARIANT& value() const noexcept { return value_; }

private:
  VARIANT value_;
};

/// Conversions in the system's ANSI code page (CP_ACP).
std::string narrow(std::wstring_view text);
std::wstring widen(std::string_view text);
/// As widen, but in the calling thread's ANSI code page (CP_THREAD_ACP). Reuses the storage of
/// `wide`.
void widenInThreadCodePage(std::string_view text, std::wstring& wide);
Bstr bstrInThreadCodePage(std::string_view text);

} // namespace win
