// A WMI client with nothing but COM calls: what it prints comes through IWbemServices. --help lists
// its commands. Exit code 0, or 1 after a failed call, whose HRESULT it prints.

#include "win/Automation.h"

#include <windows.h>
#include <shellapi.h>
#include <wbemcli.h>
#include <wrl/client.h>

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

using Microsoft::WRL::ComPtr;

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
constexpr wchar_t kEventQuery[] = L"SELECT * FROM QuillmonEvent";
constexpr LONG kForever = -1; // WBEM_INFINITE, which MinGW declares unsigned
constexpr LONG kStream = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;

/// A failed call: the program's end.
struct Failure {
  const char* call;
  HRESULT result;
};

void check(const char* call, HRESULT result) {
  if (FAILED(result)) {
    throw Failure{call, result};
  }
}

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

std::string elementText(VARIANT& value) {
  win::Variant text;
  if (FAILED(VariantChangeType(text.get(), &value, VARIANT_ALPHABOOL, VT_BSTR))) {
    return "(type " + std::to_string(value.vt) + ")";
  }
  return utf8({text.value().bstrVal, SysStringLen(text.value().bstrVal)});
}

std::string valueText(IWbemClassObject& object, const std::wstring& name) {
  win::Variant value;
  check("IWbemClassObject::Get", object.Get(name.c_str(), 0, value.get(), nullptr, nullptr));
  if (value.value().vt == VT_NULL) {
    return "(null)";
  }
  if ((value.value().vt & VT_ARRAY) == 0) {
    return elementText(*value.get());
  }
  SAFEARRAY* array = value.value().parray;
  LONG low = 0;
  LONG high = -1;
  SafeArrayGetLBound(array, 1, &low);
  SafeArrayGetUBound(array, 1, &high);
  std::string text = "{";
  for (LONG i = low; i <= high; ++i) {
    win::Variant element;
    element.get()->vt = static_cast<VARTYPE>(value.value().vt & ~VT_ARRAY);
    SafeArrayGetElement(array, &i,
                        element.value().vt == VT_BSTR ? static_cast<void*>(&element.get()->bstrVal)
                                                      : static_cast<void*>(&element.get()->bVal));
    text.append(i == low ? "" : ", ").append(elementText(*element.get()));
  }
  return text + "}";
}

std::vector<std::wstring> propertyNames(IWbemClassObject& object, LONG flags) {
  std::vector<std::wstring> names;
  check("IWbemClassObject::BeginEnumeration", object.BeginEnumeration(flags));
  for (;;) {
    win::Bstr name;
    BSTR raw = nullptr;
    HRESULT result = object.Next(0, &raw, nullptr, nullptr, nullptr);
    check("IWbemClassObject::Next", result);
    if (result == WBEM_S_NO_MORE_DATA) {
      break;
    }
    name.reset(raw);
    names.emplace_back(name.text());
  }
  object.EndEnumeration();
  return names;
}

ComPtr<IWbemServices> connect() {
  ComPtr<IWbemLocator> locator;
  check("CoCreateInstance",
        CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)));
  ComPtr<IWbemServices> services;
  win::Bstr nameSpace(L"root\\cimv2");
  check("IWbemLocator::ConnectServer",
        locator->ConnectServer(nameSpace.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                               &services));
  check("CoSetProxyBlanket",
        CoSetProxyBlanket(services.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                          RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
  return services;
}

void printTable(IEnumWbemClassObject& objects, std::vector<std::wstring> names) {
  bool isFirst = true;
  for (;;) {
    ComPtr<IWbemClassObject> object;
    ULONG count = 0;
    check("IEnumWbemClassObject::Next", objects.Next(kForever, 1, &object, &count));
    if (count == 0) {
      return;
    }
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

void list(const std::vector<std::wstring>& arguments) {
  ComPtr<IEnumWbemClassObject> objects;
  win::Bstr name(arguments[0]);
  check("IWbemServices::CreateInstanceEnum",
        connect()->CreateInstanceEnum(name.get(), kStream, nullptr, &objects));
  printTable(*objects.Get(), {arguments.begin() + 1, arguments.end()});
}

void query(const std::wstring& text) {
  ComPtr<IEnumWbemClassObject> objects;
  win::Bstr language(L"WQL");
  win::Bstr wql(text);
  check("IWbemServices::ExecQuery",
        connect()->ExecQuery(language.get(), wql.get(), kStream, nullptr, &objects));
  printTable(*objects.Get(), {});
}

void get(const std::wstring& path) {
  ComPtr<IWbemClassObject> object;
  win::Bstr text(path);
  check("IWbemServices::GetObject", connect()->GetObject(text.get(), 0, nullptr, &object, nullptr));
  std::printf("__PATH = %s\n", valueText(*object.Get(), L"__PATH").c_str());
  for (const std::wstring& name : propertyNames(*object.Get(), WBEM_FLAG_NONSYSTEM_ONLY)) {
    std::printf("%s = %s\n", utf8(name).c_str(), valueText(*object.Get(), name).c_str());
  }
}

/// Counts the instances that a list gives before its end, whatever that is.
std::pair<int, HRESULT> count(const std::wstring& className) {
  int instances = 0;
  try {
    ComPtr<IEnumWbemClassObject> objects;
    win::Bstr name(className);
    check("IWbemServices::CreateInstanceEnum",
          connect()->CreateInstanceEnum(name.get(), kStream, nullptr, &objects));
    for (ULONG got = 1; got != 0; instances += static_cast<int>(got)) {
      ComPtr<IWbemClassObject> object;
      check("IEnumWbemClassObject::Next", objects->Next(kForever, 1, &object, &got));
    }
  } catch (const Failure& failure) {
    return {instances, failure.result};
  }
  return {instances, WBEM_S_NO_ERROR};
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

/// Returns false if fewer events than asked for came in time.
bool watch(long seconds, long wanted, const std::wstring& text) {
  using Clock = std::chrono::steady_clock;
  ComPtr<IEnumWbemClassObject> events;
  win::Bstr language(L"WQL");
  win::Bstr wql(text);
  check("IWbemServices::ExecNotificationQuery",
        connect()->ExecNotificationQuery(language.get(), wql.get(), kStream, nullptr, &events));
  std::printf("ready\n");
  std::fflush(stdout);
  Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  for (long seen = 0; wanted == 0 || seen < wanted;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (seconds != 0 && left <= 0) {
      return wanted == 0;
    }
    ComPtr<IWbemClassObject> event;
    ULONG count = 0;
    LONG timeout = seconds != 0 ? static_cast<LONG>(left) : kForever;
    check("IEnumWbemClassObject::Next", events->Next(timeout, 1, &event, &count));
    if (count == 0) {
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
    list(arguments);
  } else if (command == L"get" && arguments.size() == 1) {
    get(arguments[0]);
  } else if (command == L"query" && arguments.size() == 1) {
    query(arguments[0]);
  } else if (command == L"parallel" && arguments.size() == 2 && number(0) > 0) {
    parallel(number(0), arguments[1]);
  } else if (command == L"watch" && arguments.size() <= 3) {
    return watch(number(0), number(1), arguments.size() == 3 ? arguments[2] : kEventQuery) ? 0 : 1;
  } else {
    return -1;
  }
  return 0;
}

/// As run, with a failed call printed.
int report(const std::wstring& command, const std::vector<std::wstring>& arguments) {
  try {
    return run(command, arguments);
  } catch (const Failure& failure) {
    std::printf("%s: 0x%08lX\n", failure.call, static_cast<unsigned long>(failure.result));
    return 1;
  }
}

/// One process for many commands; each connects anew.
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
    std::wstring command = words.front();
    words.erase(words.begin());
    int exitCode = report(command, words);
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
    std::wstring command = arguments.front();
    arguments.erase(arguments.begin());
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                         RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    exitCode = command == L"shell" ? shell() : report(command, arguments);
    CoUninitialize();
  }
  if (exitCode < 0) {
    std::fputs(kUsage, stderr);
    exitCode = 1;
  }
  return exitCode;
}
