#pragma once

#include <windows.h>

#include <string>
#include <vector>

/// The stand-in's settings, failure switches and counters: values below
/// HKEY_LOCAL_MACHINE\SOFTWARE\QuillmonTest\WmiHost (see README.md). They are read at each use; a
/// missing value is the default. Any thread.
namespace wmi_host::settings {

DWORD number(const wchar_t* name, DWORD otherwise = 0);
std::wstring text(const wchar_t* name);
/// A text split at semicolons, without empty parts.
std::vector<std::wstring> list(const wchar_t* name);

/// Enables the failure switches and the counters of this process, unless the setting Quiet is on.
void setProviderProcess() noexcept;
bool switchesAct() noexcept;
/// The HRESULT in the value `name`, or S_OK. The value `name`After is the number of calls that
/// succeed after the switch was set. Blocks while the value is 1.
HRESULT failure(const wchar_t* name);
/// Whether the list in the value `name` contains `item`. False outside a provider's process.
bool listed(const wchar_t* name, const wchar_t* item);

/// The address of the provider's process, in a volatile key.
struct Server {
  DWORD port = 0;
  std::wstring identity;
};
Server publishedServer();
void publish(const Server& server);
/// Does nothing if another process has published its address since.
void withdraw(const std::wstring& identity);

void clearCounters();
void storeCounter(const wchar_t* name, DWORD value);
void storeCounter(const wchar_t* name, const std::wstring& value);

/// The in-process server that was registered for the locator before this DLL.
std::wstring previousLocator();
void storePreviousLocator(const std::wstring& path);

} // namespace wmi_host::settings
