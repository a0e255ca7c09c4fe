#pragma once

#include <windows.h>

#include <string>

/// The Windows service "QuillmonServ": its registration and its life. Results of the service
/// control manager are not checked except where a line on the console says otherwise; its handles
/// stay open to the end of the process.

/// The service control manager with all access; null when refused.
SC_HANDLE openServiceManager();

/// Registers the service with `binaryPath`, starts it, and says so on the console.
void installService(SC_HANDLE manager, const std::string& binaryPath);

/// Stops and removes the service; silent when there is none.
void uninstallService(SC_HANDLE manager);

/// True exactly when the service control manager reports the service running.
bool IsServiceRunning();

/// Hands the first thread to the service control manager until the service has stopped; false when
/// this process was not started by it.
bool runServiceDispatcher();

/// The service's body, on a thread of the dispatcher's. Never returns after a successful start.
void WINAPI ServiceMain(DWORD argc, LPSTR* argv) noexcept;

/// Runs on the dispatcher's thread; shares the status block with ServiceMain without a lock.
void WINAPI ServiceCtrlHandler(DWORD control) noexcept;

/// Sleeps for ever: the thread of a started service must not return.
[[noreturn]] void parkForever();
