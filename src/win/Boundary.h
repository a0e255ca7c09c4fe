#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <exception>
#include <new>

namespace win {

/// A WMI status code as an HRESULT: MinGW declares the codes as unsigned.
constexpr HRESULT wbemResult(WBEMSTATUS code) noexcept {
  return static_cast<HRESULT>(code);
}

/// Runs `body`, which returns an HRESULT, and translates exceptions: std::bad_alloc into
/// WBEM_E_OUT_OF_MEMORY, all others into WBEM_E_FAILED. For COM methods and thread entries, which
/// must not throw.
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
