#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <exception>
#include <new>

namespace win {

/// Runs `body`, which returns an HRESULT, where no exception may pass: a COM method, a thread's
/// entry. Without memory the result is WBEM_E_OUT_OF_MEMORY, after any other exception
/// WBEM_E_FAILED.
template <class Body> HRESULT comBoundary(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return WBEM_E_OUT_OF_MEMORY;
  } catch (...) {
    return WBEM_E_FAILED;
  }
}

} // namespace win
