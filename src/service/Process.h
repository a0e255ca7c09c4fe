#pragma once

#include <windows.h>

/// The work itself, whatever the mode: COM and its security, the registration with WMI as a
/// decoupled provider, the event thread, and the message loop, which ends only on WM_QUIT.
/// Called once, on the thread that pumps the messages. Returns an HRESULT: negative is a failure.
HRESULT Process() noexcept;
