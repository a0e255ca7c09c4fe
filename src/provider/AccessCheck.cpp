#include "provider/AccessCheck.h"

#include "win/Boundary.h"

#include <windows.h>
#include <sddl.h>
#include <wbemcli.h>

#include <memory>
#include <new>

namespace provider {

using win::wbemResult;

HRESULT CheckAccess(PSECURITY_DESCRIPTOR descriptor, DWORD desiredAccess,
                    GENERIC_MAPPING mapping) noexcept {
  win::Handle token;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    // Kept: a Win32 code never equals an HRESULT, so the result is always WBEM_E_FAILED.
    return GetLastError() == static_cast<DWORD>(E_ACCESSDENIED) ? wbemResult(WBEM_E_ACCESS_DENIED)
                                                                : wbemResult(WBEM_E_FAILED);
  }
  MapGenericMask(&desiredAccess, &mapping);

  // The first call passes a length of 0, to obtain the length of the privilege set. The address
  // must not be null.
  PRIVILEGE_SET none;
  DWORD length = 0;
  DWORD granted = 0;
  BOOL allowed = FALSE;
  SetLastError(ERROR_SUCCESS);
  if (AccessCheck(descriptor, token.get(), desiredAccess, &mapping, &none, &length, &granted,
                  &allowed) &&
      allowed) {
    return S_OK;
  }
  if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
    return wbemResult(WBEM_E_ACCESS_DENIED);
  }
  const std::unique_ptr<BYTE[]> privileges(new (std::nothrow) BYTE[length]);
  if (privileges == nullptr) {
    return wbemResult(WBEM_E_OUT_OF_MEMORY);
  }
  if (AccessCheck(descriptor, token.get(), desiredAccess, &mapping,
                  reinterpret_cast<PRIVILEGE_SET*>(privileges.get()), &length, &granted,
                  &allowed) &&
      allowed) {
    return S_OK;
  }
  return wbemResult(WBEM_E_ACCESS_DENIED);
}

DWORD threadImpersonationLevel() noexcept {
  constexpr DWORD kAnonymous = 1;
  constexpr DWORD kDelegation = 4;
  win::Handle token;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    const DWORD error = GetLastError();
    return error == ERROR_NO_IMPERSONATION_TOKEN || error == ERROR_NO_TOKEN ? kDelegation
                                                                            : kAnonymous;
  }
  SECURITY_IMPERSONATION_LEVEL level{};
  DWORD length = 0;
  if (!GetTokenInformation(token.get(), TokenImpersonationLevel, &level, sizeof level, &length)) {
    return kAnonymous;
  }
  switch (level) {
  case SecurityIdentification:
    return 2;
  case SecurityImpersonation:
    return 3;
  case SecurityDelegation:
    return kDelegation;
  default:
    return kAnonymous;
  }
}

win::LocalMemory securityDescriptor(const char* sddl) noexcept {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl, SDDL_REVISION_1, &descriptor,
                                                            nullptr)) {
    return {};
  }
  return win::LocalMemory(descriptor);
}

} // namespace provider
