#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <string_view>
#include <utility>

/// OLE automation strings and variants as owning types, and the conversions between the service's
/// narrow text (the system's ANSI code page) and BSTRs. Conversions throw std::bad_alloc, or
/// std::system_error where the platform refuses: no other text is handed on instead.
namespace win {

/// Owns a BSTR; null is allowed and reads as empty text.
class Bstr {
public:
  Bstr() noexcept = default;
  /// Copies; throws std::bad_alloc.
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
  /// A VT_BSTR that takes the text over.
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

/// WideCharToMultiByte / MultiByteToWideChar in the system's ANSI code page.
std::string narrow(std::wstring_view text);
std::wstring widen(std::string_view text);
/// As widen, in the calling thread's ANSI code page (CP_THREAD_ACP); `wide` keeps its storage.
void widenInThreadCodePage(std::string_view text, std::wstring& wide);
Bstr bstrInThreadCodePage(std::string_view text);

} // namespace win
