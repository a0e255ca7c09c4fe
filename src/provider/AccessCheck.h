#pragma once

#include "win/Handles.h"

/// Checks of the caller by the thread's impersonation token.
///
/// Threads: a thread that impersonates the caller. Errors: result codes; nothing throws.
namespace provider {

/// S_OK if the descriptor grants `desiredAccess` to the thread's token; else WBEM_E_ACCESS_DENIED,
/// WBEM_E_FAILED (the thread has no token) or WBEM_E_OUT_OF_MEMORY.
HRESULT CheckAccess(PSECURITY_DESCRIPTOR descriptor, DWORD desiredAccess,
                    GENERIC_MAPPING mapping) noexcept;

/// The thread's impersonation level: 1 anonymous (also on failure), 2 identification,
/// 3 impersonation, 4 delegation (also without a token).
DWORD threadImpersonationLevel() noexcept;

/// Converts an SDDL text to a security descriptor; empty on failure.
win::LocalMemory securityDescriptor(const char* sddl) noexcept;

} // namespace provider
