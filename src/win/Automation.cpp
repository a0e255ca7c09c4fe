#include "win/Automation.h"

#include <climits>

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

/// The converted text's length, or what has been converted: 0 is the platform's failure, since an
/// empty text is never asked for.
std::size_t checkedResult(int result) {
  if (result == 0) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "code page conversion");
  }
  return static_cast<std::size_t>(result);
}

std::wstring widenIn(UINT codePage, std::string_view text) {
  const int length = checkedLength(text.size());
  std::wstring wide;
  if (length != 0) {
    wide.resize(checkedResult(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0)));
    checkedResult(MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(),
                                      static_cast<int>(wide.size())));
  }
  return wide;
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
  return widenIn(CP_ACP, text);
}

std::wstring widenInThreadCodePage(std::string_view text) {
  return widenIn(CP_THREAD_ACP, text);
}

} // namespace win
