#pragma once

#include "win/Handles.h"

/// What the thread's impersonation token tells about the caller. Called while the thread
/// impersonates; nothing is changed, nothing is thrown.
namespace provider {

/// S_OK when the thread's token is granted `desiredAccess` by the descriptor, WBEM_E_ACCESS_DENIED
/// when it is not, WBEM_E_FAILED without a token, WBEM_E_OUT_OF_MEMORY.
HRESULT CheckAccess(PSECURITY_DESCRIPTOR descriptor, DWORD desiredAccess,
                    GENERIC_MAPPING mapping) noexcept;

/// The thread's impersonation level: 1 anonymous (also unreadable), 2 identification,
/// 3 impersonation, 4 delegation (also a thread without a token).
DWORD threadImpersonationLevel() noexcept;

/// The descriptor that an SDDL text describes; empty on failure.
win::LocalMemory securityDescriptor(const char* sddl) noexcept;

} // namespace provider
