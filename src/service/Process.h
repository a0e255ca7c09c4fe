#pragma once

#include <windows.h>

namespace service {

/// The main routine of all modes: initialises COM and its security, registers with WMI as a
/// decoupled provider, starts the event thread, and pumps messages until WM_QUIT.
/// Threads: called once. Errors: a negative HRESULT.
HRESULT Process() noexcept;

} // namespace service
