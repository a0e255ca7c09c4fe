#include "Settings.h"

#include "Cim.h"
#include "win/Handles.h"

#include <winreg.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

namespace wmi_host::settings {
namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\QuillmonTest\\WmiHost";
constexpr wchar_t kServerKey[] = L"SOFTWARE\\QuillmonTest\\WmiHost\\Server";
constexpr wchar_t kCountersKey[] = L"SOFTWARE\\QuillmonTest\\WmiHost\\Counters";

constexpr DWORD kBlocks = 1;

std::atomic<bool> isProviderProcess = false;
std::atomic<bool> isQuiet = false; // only Mof and Server are read, no counter is stored

DWORD numberIn(const wchar_t* key, const wchar_t* name, DWORD otherwise) {
  DWORD value = 0;
  DWORD size = sizeof value;
  return RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &value, &size) ==
                 ERROR_SUCCESS
             ? value
             : otherwise;
}

std::wstring textIn(const wchar_t* key, const wchar_t* name) {
  DWORD size = 0;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, nullptr, &size) !=
      ERROR_SUCCESS) {
    return {};
  }
  std::wstring value(size / sizeof(wchar_t) + 1, L'\0');
  size = static_cast<DWORD>(value.size() * sizeof(wchar_t));
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, value.data(), &size) !=
      ERROR_SUCCESS) {
    return {};
  }
  value.resize(value.find(L'\0'));
  return value;
}

void store(const wchar_t* path, DWORD options, const wchar_t* name, DWORD type, const void* value,
           std::size_t size) {
  win::RegistryKey key;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, options, KEY_ALL_ACCESS, nullptr, key.put(),
                  nullptr);
  RegSetValueExW(key.get(), name, 0, type, static_cast<const BYTE*>(value),
                 static_cast<DWORD>(size));
}

void store(const wchar_t* path, DWORD options, const wchar_t* name, DWORD value) {
  store(path, options, name, REG_DWORD, &value, sizeof value);
}

void store(const wchar_t* path, DWORD options, const wchar_t* name, const std::wstring& value) {
  store(path, options, name, REG_SZ, value.c_str(), (value.size() + 1) * sizeof(wchar_t));
}

} // namespace

DWORD number(const wchar_t* name, DWORD otherwise) {
  return isQuiet ? otherwise : numberIn(kKey, name, otherwise);
}

std::wstring text(const wchar_t* name) {
  return textIn(kKey, name);
}

std::vector<std::wstring> list(const wchar_t* name) {
  std::vector<std::wstring> items(1);
  for (wchar_t c : text(name)) {
    if (c == L';') {
      items.emplace_back();
    } else {
      items.back() += c;
    }
  }
  std::erase(items, std::wstring());
  return items;
}

void setProviderProcess() noexcept {
  isQuiet = numberIn(kKey, L"Quiet", 0) != 0;
  isProviderProcess = !isQuiet;
}

bool switchesAct() noexcept {
  return isProviderProcess;
}

HRESULT failure(const wchar_t* name) {
  static std::mutex mutex;
  static std::map<std::wstring, DWORD> passed;
  if (!isProviderProcess) {
    return S_OK;
  }
  DWORD code = number(name);
  {
    std::scoped_lock lock(mutex);
    if (code == 0) {
      passed.erase(name);
      return S_OK;
    }
    if (passed[name] < number((std::wstring(name) + L"After").c_str())) {
      ++passed[name];
      return S_OK;
    }
  }
  while (code == kBlocks) {
    Sleep(10); // polling is simpler than RegNotifyChangeKeyValue
    code = number(name);
  }
  return static_cast<HRESULT>(code);
}

bool listed(const wchar_t* name, const wchar_t* item) {
  if (!isProviderProcess) {
    return false;
  }
  const std::vector<std::wstring> entries = list(name);
  return std::any_of(entries.begin(), entries.end(),
                     [item](const std::wstring& entry) { return sameName(entry, item); });
}

Server publishedServer() {
  return {numberIn(kServerKey, L"Port", 0), textIn(kServerKey, L"Identity")};
}

void publish(const Server& server) {
  store(kServerKey, REG_OPTION_VOLATILE, L"Identity", server.identity);
  store(kServerKey, REG_OPTION_VOLATILE, L"Port", server.port);
}

void withdraw(const std::wstring& identity) {
  if (publishedServer().identity == identity) {
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kServerKey);
  }
}

void clearCounters() {
  if (!isQuiet) {
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kCountersKey);
  }
}

void storeCounter(const wchar_t* name, DWORD value) {
  if (!isQuiet) {
    store(kCountersKey, REG_OPTION_VOLATILE, name, value);
  }
}
void storeCounter(const wchar_t* name, const std::wstring& value) {
  store(kCountersKey, REG_OPTION_VOLATILE, name, value);
}

std::wstring previousLocator() {
  return text(L"PreviousLocator");
}
void storePreviousLocator(const std::wstring& path) {
  store(kKey, REG_OPTION_NON_VOLATILE, L"PreviousLocator", path);
}

} // namespace wmi_host::settings
