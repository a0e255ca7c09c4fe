#include "win/Automation.h"

#include <climits>

#include <new>
#include <stdexcept>

namespace win {

namespace {

int checkedLength(std::size_t length) {
  if (length > INT_MAX) {
    throw std::length_error("text too long for a code page conversion");
  }
  return static_cast<int>(length);
}

std::wstring widenIn(UINT codePage, std::string_view text) {
  const int length = checkedLength(text.size());
  std::wstring wide(
      static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0)),
      L'\0');
  MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(), static_cast<int>(wide.size()));
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
  std::string bytes(static_cast<std::size_t>(WideCharToMultiByte(CP_ACP, 0, text.data(), length,
                                                                 nullptr, 0, nullptr, nullptr)),
                    '\0');
  WideCharToMultiByte(CP_ACP, 0, text.data(), length, bytes.data(), static_cast<int>(bytes.size()),
                      nullptr, nullptr);
  return bytes;
}

std::wstring widen(std::string_view text) {
  return widenIn(CP_ACP, text);
}

std::wstring widenInThreadCodePage(std::string_view text) {
  return widenIn(CP_THREAD_ACP, text);
}

} // namespace win
