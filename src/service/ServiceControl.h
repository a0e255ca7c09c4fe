#pragma once

#include <windows.h>

#include <string>

namespace service {

// The Windows service "QuillmonServ": installation and life cycle. Results of the service control
// manager are checked only where a console line depends on them; its handles stay open until the
// process ends, but for that of a service that is removed.

/// Opens the service control manager with all access; null on failure.
SC_HANDLE openServiceManager();

/// Registers the service with `binaryPath` and starts it; prints the result.
void installService(SC_HANDLE manager, const std::string& binaryPath);

/// Stops and removes the service; prints nothing if it does not exist.
void uninstallService(SC_HANDLE manager);

/// True if the service control manager reports the state SERVICE_RUNNING.
bool IsServiceRunning();

/// Runs the service dispatcher on the first thread until the service has stopped; false if the
/// process was not started by the service control manager.
bool runServiceDispatcher();

/// The service's entry, on a thread of the dispatcher. Does not return after a successful start.
void WINAPI ServiceMain(DWORD argc, LPSTR* argv) noexcept;

/// The service's control handler, on the dispatcher's thread.
void WINAPI ServiceCtrlHandler(DWORD control) noexcept;

/// Blocks for ever: the thread of a started service must not return.
[[noreturn]] void blockForever();

} // namespace service
