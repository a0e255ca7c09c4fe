#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <exception>
#include <new>

namespace win {

/// A WMI code as the HRESULT that it is: MinGW declares the codes unsigned.
constexpr HRESULT wbemResult(WBEMSTATUS code) noexcept {
  return static_cast<HRESULT>(code);
}

/// Runs `body`, which returns an HRESULT, where no exception may pass: a COM method, a thread's
/// entry. Without memory the result is WBEM_E_OUT_OF_MEMORY, after any other exception
/// WBEM_E_FAILED.
template <class Body>
HRESULT comBoundary(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return wbemResult(WBEM_E_OUT_OF_MEMORY);
  } catch (...) {
    return wbemResult(WBEM_E_FAILED);
  }
}

} // namespace win
