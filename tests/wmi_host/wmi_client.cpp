// A WMI client that uses COM only. --help lists its commands. The exit code is 1 after a failed
// call, whose HRESULT it prints.

#include "WmiClient.h"
#include "win/Automation.h"

#include <shellapi.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using test_support::check;
using test_support::WmiClient;

constexpr char kUsage[] =
    "usage: wmi_client list CLASS [PROPERTY...]      instances, one a line, values between tabs\n"
    "       wmi_client get PATH                      one object, a property a line\n"
    "       wmi_client query WQL                     as list\n"
    "       wmi_client watch [SECONDS [COUNT [WQL]]] events, one a line, after the line "
    "\"ready\";\n"
    "                                                SECONDS 0: for ever; COUNT 0: any number\n"
    "       wmi_client parallel N CLASS              N lists at once; for each a line with the "
    "number\n"
    "                                                of instances and the HRESULT\n"
    "       wmi_client shell                         commands from standard input, one a line,\n"
    "                                                words between tabs, and after each\n"
    "                                                \"= EXITCODE\"\n";

std::string utf8(std::wstring_view text) {
  int length = static_cast<int>(text.size());
  int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), size, nullptr, nullptr);
  return result;
}

std::wstring wide(std::string_view text) {
  int length = static_cast<int>(text.size());
  int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
  std::wstring result(static_cast<std::size_t>(size), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), length, result.data(), size);
  return result;
}

std::string valueText(IWbemClassObject& object, const std::wstring& name) {
  win::Variant value;
  check("IWbemClassObject::Get", object.Get(name.c_str(), 0, value.get(), nullptr, nullptr));
  if (value.value().vt == VT_NULL) {
    return "(null)";
  }
  win::Variant text;
  if (FAILED(VariantChangeType(text.get(), value.get(), VARIANT_ALPHABOOL, VT_BSTR))) {
    return "(type " + std::to_string(value.value().vt) + ")";
  }
  return utf8({text.value().bstrVal, SysStringLen(text.value().bstrVal)});
}

std::vector<std::wstring> propertyNames(IWbemClassObject& object, LONG flags) {
  std::vector<std::wstring> names;
  check("IWbemClassObject::BeginEnumeration", object.BeginEnumeration(flags));
  for (;;) {
    BSTR raw = nullptr;
    HRESULT result = object.Next(0, &raw, nullptr, nullptr, nullptr);
    check("IWbemClassObject::Next", result);
    if (raw == nullptr) {
      break;
    }
    win::Bstr name;
    name.reset(raw);
    names.emplace_back(name.text());
  }
  object.EndEnumeration();
  return names;
}

void printTable(const WmiClient::Objects& objects, std::vector<std::wstring> names) {
  bool isFirst = true;
  while (WmiClient::Object object = WmiClient::next(objects)) {
    if (names.empty()) {
      names = propertyNames(*object.Get(), WBEM_FLAG_NONSYSTEM_ONLY);
    }
    std::string header;
    std::string line;
    for (const std::wstring& name : names) {
      const char* separator = header.empty() ? "" : "\t";
      header.append(separator).append(utf8(name));
      line.append(separator).append(valueText(*object.Get(), name));
    }
    if (std::exchange(isFirst, false)) {
      std::printf("%s\n", header.c_str());
    }
    std::printf("%s\n", line.c_str());
  }
}

void get(const std::wstring& path) {
  WmiClient::Object object = WmiClient().get(path);
  std::printf("__PATH = %s\n", valueText(*object.Get(), L"__PATH").c_str());
  for (const std::wstring& name : propertyNames(*object.Get(), WBEM_FLAG_NONSYSTEM_ONLY)) {
    std::printf("%s = %s\n", utf8(name).c_str(), valueText(*object.Get(), name).c_str());
  }
}

/// The number of instances that were listed, and the final status.
std::pair<int, HRESULT> count(const std::wstring& className) {
  int instances = 0;
  try {
    const WmiClient::Objects objects = WmiClient().instances(className);
    while (WmiClient::next(objects)) {
      ++instances;
    }
  } catch (const test_support::WmiFailure& failure) {
    return {instances, failure.result};
  }
  return {instances, S_OK};
}

void parallel(long number, const std::wstring& className) {
  std::vector<std::pair<int, HRESULT>> results(static_cast<std::size_t>(number));
  std::vector<std::thread> threads;
  for (std::pair<int, HRESULT>& result : results) {
    threads.emplace_back([&] {
      CoInitializeEx(nullptr, COINIT_MULTITHREADED);
      result = count(className);
      CoUninitialize();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const auto& [instances, result] : results) {
    std::printf("%d 0x%08lX\n", instances, static_cast<unsigned long>(result));
  }
}

/// Returns false if fewer events than `wanted` arrive in time.
bool watch(long seconds, long wanted, const std::wstring& wql) {
  using Clock = std::chrono::steady_clock;
  const WmiClient::Objects events = WmiClient().events(wql);
  std::printf("ready\n");
  std::fflush(stdout);
  Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  for (long seen = 0; wanted == 0 || seen < wanted;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (seconds != 0 && left <= 0) {
      return wanted == 0;
    }
    WmiClient::Object event =
        WmiClient::next(events, seconds != 0 ? static_cast<LONG>(left) : WmiClient::kForever);
    if (!event) {
      continue;
    }
    std::string line = valueText(*event.Get(), L"__CLASS");
    for (const std::wstring& name : propertyNames(*event.Get(), WBEM_FLAG_LOCAL_ONLY)) {
      line.append(" ").append(utf8(name)).append("=\"");
      line.append(valueText(*event.Get(), name)).append("\"");
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    ++seen;
  }
  return true;
}

/// Returns the exit code; -1 for a wrong command line.
int run(const std::wstring& command, const std::vector<std::wstring>& arguments) {
  auto number = [&](std::size_t index) {
    return index < arguments.size() ? std::wcstol(arguments[index].c_str(), nullptr, 10) : 0L;
  };
  if (command == L"list" && !arguments.empty()) {
    printTable(WmiClient().instances(arguments[0]), {arguments.begin() + 1, arguments.end()});
  } else if (command == L"get" && arguments.size() == 1) {
    get(arguments[0]);
  } else if (command == L"query" && arguments.size() == 1) {
    printTable(WmiClient().query(arguments[0]), {});
  } else if (command == L"parallel" && arguments.size() == 2 && number(0) > 0) {
    parallel(number(0), arguments[1]);
  } else if (command == L"watch" && arguments.size() <= 3) {
    return watch(number(0), number(1),
                 arguments.size() == 3 ? arguments[2] : L"SELECT * FROM QuillmonEvent")
               ? 0
               : 1;
  } else {
    return -1;
  }
  return 0;
}

/// As run, but prints a failed call.
int report(std::vector<std::wstring> words) {
  std::wstring command = words.front();
  words.erase(words.begin());
  try {
    return run(command, words);
  } catch (const test_support::WmiFailure& failure) {
    std::printf("%s\n", failure.what());
    return 1;
  }
}

/// Runs many commands in one process. Each has a connection of its own.
int shell() {
  for (std::string line; std::getline(std::cin, line);) {
    std::vector<std::wstring> words(1);
    for (wchar_t letter : wide(line)) {
      if (letter == L'\t') {
        words.emplace_back();
      } else {
        words.back() += letter;
      }
    }
    int exitCode = report(words);
    std::printf("= %d\n", exitCode);
    std::fflush(stdout);
  }
  return 0;
}

} // namespace

int main() {
  int count = 0;
  wchar_t** all = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::wstring> arguments(all + 1, all + count);
  LocalFree(all);
  int exitCode = -1;
  if (!arguments.empty()) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                         RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    exitCode = arguments.front() == L"shell" ? shell() : report(arguments);
    CoUninitialize();
  }
  if (exitCode < 0) {
    std::fputs(kUsage, stderr);
    exitCode = 1;
  }
  return exitCode;
}
