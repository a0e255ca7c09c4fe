#include "win/Automation.h"

#include <climits>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <system_error>

namespace win {

namespace {

int checkedLength(std::size_t length) {
  if (length > INT_MAX) {
    throw std::length_error("text too long for a code page conversion");
  }
  return static_cast<int>(length);
}

/// `result` as a length; 0 is a failure, since an empty text is never converted. Throws
/// std::system_error.
std::size_t checkedResult(int result) {
  if (result == 0) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "code page conversion");
  }
  return static_cast<std::size_t>(result);
}

/// Every ANSI code page of Windows contains ASCII unchanged, so ASCII text is widened without the
/// platform.
bool isAscii(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(), [](char each) { return (each & 0x80) == 0; });
}

void widenIn(UINT codePage, std::string_view text, std::wstring& wide) {
  if (isAscii(text)) {
    wide.assign(text.begin(), text.end());
    return;
  }
  const int length = checkedLength(text.size());
  wide.resize(checkedResult(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0)));
  checkedResult(MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(),
                                    static_cast<int>(wide.size())));
}

} // namespace

Bstr::Bstr(const wchar_t* text) : Bstr(std::wstring_view(text)) {}

Bstr::Bstr(std::wstring_view text)
    : value_(SysAllocStringLen(text.data(), static_cast<UINT>(checkedLength(text.size())))) {
  if (value_ == nullptr) {
    throw std::bad_alloc();
  }
}

std::string narrow(std::wstring_view text) {
  const int length = checkedLength(text.size());
  std::string bytes;
  if (length != 0) {
    bytes.resize(checkedResult(
        WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr)));
    checkedResult(WideCharToMultiByte(CP_ACP, 0, text.data(), length, bytes.data(),
                                      static_cast<int>(bytes.size()), nullptr, nullptr));
  }
  return bytes;
}

std::wstring widen(std::string_view text) {
  std::wstring wide;
  widenIn(CP_ACP, text, wide);
  return wide;
}

void widenInThreadCodePage(std::string_view text, std::wstring& wide) {
  widenIn(CP_THREAD_ACP, text, wide);
}

Bstr bstrInThreadCodePage(std::string_view text) {
  if (isAscii(text)) {
    Bstr bstr;
    bstr.reset(SysAllocStringLen(nullptr, static_cast<UINT>(checkedLength(text.size()))));
    if (!bstr) {
      throw std::bad_alloc();
    }
    std::copy(text.begin(), text.end(), bstr.get());
    return bstr;
  }
  std::wstring wide;
  widenInThreadCodePage(text, wide);
  return Bstr(std::wstring_view(wide));
}

} // namespace win
