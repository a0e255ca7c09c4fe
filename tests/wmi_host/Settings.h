#pragma once

#include <windows.h>

#include <string>
#include <vector>

/// The stand-in's settings, failure switches and counters: values below
/// HKEY_LOCAL_MACHINE\SOFTWARE\QuillmonTest\WmiHost, read at each use (README.md lists them).
/// Any thread; a value that cannot be read is the default.
namespace wmi_host::settings {

DWORD number(const wchar_t* name, DWORD otherwise = 0);
std::wstring text(const wchar_t* name);
/// A text split at semicolons, without empty parts.
std::vector<std::wstring> list(const wchar_t* name);

/// Failure switches act in a process that registers a provider, and only after this; not at all
/// where the setting Quiet is on at this moment.
void setProviderProcess() noexcept;
bool switchesAct() noexcept;
/// The HRESULT in the value `name`, or S_OK. With a value `name`After that many calls pass first,
/// counted from when the switch was set. While the value is 1 this does not return.
HRESULT failure(const wchar_t* name);
/// Whether the list in the value `name` has `item`; only in a provider's process.
bool listed(const wchar_t* name, const wchar_t* item);

/// Where the provider's process can be reached; gone when that process's machine restarts.
struct Server {
  DWORD port = 0;
  std::wstring identity;
};
Server publishedServer();
void publish(const Server& server);
void withdraw();

void clearCounters();
void storeCounter(const wchar_t* name, DWORD value);
void storeCounter(const wchar_t* name, const std::wstring& value);

/// The in-process server that the locator's class id named before this DLL took its place.
std::wstring previousLocator();
void storePreviousLocator(const std::wstring& path);

} // namespace wmi_host::settings
