// faults.dll: makes the calls fail that the program under test imports from the system's libraries,
// one at a time, and counts what the program holds. Loaded by the fault shell before the program's
// first instruction; the program is the one that ships. What the DLL and the system's libraries
// call themselves is not touched.
//
// A call is told from another by the function, the program's return addresses on the stack, and how
// often this way has been taken in this run (allocations: any number counts as one). Each is failed
// once, until a run in which nothing is due.

#include "Walk.h"

#include <winsock2.h>
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <process.h>
#include <sddl.h>
#include <share.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace {

using faults::Kind;
using faults::Walk;

Walk* walk = nullptr;
std::uintptr_t programBegin = 0;
std::uintptr_t programEnd = 0;

std::mutex& lock() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

// -- what the program holds

struct Held {
  int function = 0;
  std::size_t size = 0;
};

std::unordered_map<std::uintptr_t, Held>& ledger() {
  static auto& held = *new std::unordered_map<std::uintptr_t, Held>;
  return held;
}

template <class Value>
std::uintptr_t keyOf(Value value) {
  if constexpr (std::is_pointer_v<Value>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else {
    return static_cast<std::uintptr_t>(value);
  }
}

void count(const Held& held, LONG by) {
  faults::Function& function = walk->functions[held.function];
  InterlockedExchangeAdd(&function.held, by);
  InterlockedExchangeAdd64(&function.bytes, by * static_cast<LONG64>(held.size));
}

template <class Value>
void opened(int function, Value value, std::size_t size = 0) {
  if (value == Value() || keyOf(value) == static_cast<std::uintptr_t>(-1)) {
    return;
  }
  std::scoped_lock locked(lock());
  const Held held{function, size};
  const auto [entry, fresh] = ledger().try_emplace(keyOf(value), held);
  if (!fresh) { // ended unseen, by the system itself
    count(entry->second, -1);
    entry->second = held;
  }
  count(held, 1);
}

template <class Value>
void closed(Value value) {
  std::scoped_lock locked(lock());
  const auto entry = ledger().find(keyOf(value));
  if (entry != ledger().end()) {
    count(entry->second, -1);
    ledger().erase(entry);
  }
}

// -- the trace log's turn

HANDLE volatile turn = nullptr;
DWORD volatile turnHolder = 0;

// -- which call fails

struct Way {
  std::uint64_t hash = 14695981039346656037U;
  ULONG64 frames[faults::kFrames] = {};
  bool isSkipped = false;
  bool isBelow = false;
  ULONG64 root = 0; ///< where the C runtime called main, on the first thread after its start
};

bool isIn(const faults::Ranges& ranges, ULONG64 offset) {
  const faults::Range* const first = ranges.ranges;
  const auto* const next = std::upper_bound(
      first, first + ranges.count, offset,
      [](ULONG64 value, const faults::Range& range) { return value < range.from; });
  return next != first && offset < next[-1].to;
}

Way wayHere(int function) {
  void* addresses[62];
  const USHORT found = RtlCaptureStackBackTrace(0, std::size(addresses), addresses, nullptr);
  Way way;
  const auto mix = [&way](std::uint64_t value) { way.hash = (way.hash ^ value) * 1099511628211U; };
  mix(static_cast<std::uint64_t>(function));
  LONG depth = 0;
  ULONG64 outermost[3] = {};
  for (USHORT i = 0; i < found; ++i) {
    const auto address = keyOf(addresses[i]);
    if (address < programBegin || address >= programEnd) {
      continue;
    }
    const ULONG64 offset = address - programBegin;
    if (depth < walk->depth) {
      mix(offset);
    }
    way.isSkipped = way.isSkipped || isIn(walk->skipped, offset - 1);
    way.isBelow = way.isBelow || isIn(walk->below, offset - 1);
    if (depth < faults::kFrames) {
      way.frames[depth] = offset;
    }
    ++depth;
    outermost[2] = std::exchange(outermost[1], std::exchange(outermost[0], offset));
  }
  way.root = outermost[2];
  return way;
}

bool isFirstThread() {
  return GetCurrentThreadId() == walk->firstThread;
}

/// The C runtime's own start comes before main, and cannot fail in an orderly way.
bool isBeforeMain(const Way& way) {
  return isFirstThread() && way.root != walk->mainCall;
}

/// How often this way has been taken in this run, from 1; 2 for more.
std::uint64_t occurrence(std::uint64_t hash) {
  static LONG run = -1;
  static auto& taken = *new std::unordered_map<std::uint64_t, std::uint64_t>;
  if (run != walk->run) {
    run = walk->run;
    taken.clear();
  }
  std::uint64_t& times = taken[hash];
  times += times < 2 ? 1 : 0;
  return times;
}

bool isDue(int function, Kind kind) {
  if (walk == nullptr || walk->armed == 0 || walk->failed != 0) {
    return false;
  }
  if (walk->kind != Kind::kAny && walk->kind != kind) {
    return false;
  }
  faults::Function& entry = walk->functions[function];
  if (walk->only[0] != '\0' && std::strcmp(walk->only, entry.name) != 0) {
    return false;
  }
  const DWORD error = GetLastError();
  const Way way = wayHere(function);
  SetLastError(error);
  if (isBeforeMain(way) || way.isSkipped || (walk->below.count != 0 && !way.isBelow)) {
    return false;
  }
  std::scoped_lock locked(lock());
  const std::uint64_t call = way.hash + (kind == Kind::kMemory ? 1 : occurrence(way.hash));
  for (LONG i = 0; i < walk->seenCount; ++i) {
    if (walk->seen[i] == call) {
      return false;
    }
  }
  if (walk->failed != 0 || walk->seenCount == faults::kMostSeen) {
    return false;
  }
  walk->seen[walk->seenCount++] = call;
  std::memcpy(walk->failedStack, way.frames, sizeof way.frames);
  std::strcpy(walk->failedName, entry.name);
  ++entry.failures;
  InterlockedExchange(&walk->failed, 1);
  return true;
}

// -- the functions in place of the imported ones

template <std::size_t Size>
struct Text {
  char data[Size];
  constexpr Text(const char (&text)[Size]) { std::copy(text, text + Size, data); }
};

/// One imported function. `Reached` sees the arguments of every call; `Before`, and `After` with
/// the result, those of calls that are made.
template <Text Name, class Signature, auto Before, auto After, auto Reached>
struct Import;

template <Text Name, class Result, class... Arguments, auto Before, auto After, auto Reached>
struct Import<Name, Result(Arguments...), Before, After, Reached> {
  static inline Result (*original)(Arguments...) = nullptr;
  static inline int number = -1;
  static inline Kind kind = Kind::kPlatform;
  static inline std::conditional_t<std::is_void_v<Result>, int, Result> failure{};
  static inline DWORD error = ERROR_SUCCESS;
  /// What only ends something is carried out although it fails: the loss would be the platform's.
  static inline bool madeAllTheSame = false;

  static Result made(Arguments... arguments) {
    Before(arguments...);
    if constexpr (std::is_void_v<Result>) {
      original(arguments...);
    } else {
      const Result result = original(arguments...);
      const DWORD lastError = GetLastError();
      After(number, result, arguments...);
      SetLastError(lastError);
      return result;
    }
  }

  static Result madeOrFailed(Arguments... arguments) {
    Reached(arguments...);
    if (!isDue(number, kind)) {
      return made(arguments...);
    }
    if (madeAllTheSame) {
      made(arguments...);
    }
    SetLastError(error); // Winsock's last error is the same
    return failure;
  }
};

struct Nothing {
  template <class... Any>
  constexpr void operator()(const Any&...) const {}
};
constexpr Nothing nothing;

struct Opens {
  template <class Result, class... Any>
  void operator()(int function, Result result, const Any&...) const {
    opened(function, result);
  }
};
constexpr Opens opens;

struct Closes {
  template <class Value, class... Any>
  void operator()(Value value, const Any&...) const {
    closed(value);
  }
};
constexpr Closes closes;

std::uintptr_t* findImport(std::string_view name) {
  const auto at = [](std::uint64_t offset) { return programBegin + offset; };
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(programBegin);
  const auto* headers =
      reinterpret_cast<const IMAGE_NT_HEADERS64*>(at(static_cast<std::uint64_t>(dos->e_lfanew)));
  programEnd = at(headers->OptionalHeader.SizeOfImage);
  const IMAGE_DATA_DIRECTORY& imports =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  for (auto* dll = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(at(imports.VirtualAddress));
       dll->Name != 0; ++dll) {
    const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA64*>(at(dll->OriginalFirstThunk));
    auto* addresses = reinterpret_cast<std::uintptr_t*>(at(dll->FirstThunk));
    for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
      if ((names->u1.Ordinal & IMAGE_ORDINAL_FLAG64) == 0 &&
          name ==
              reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(at(names->u1.AddressOfData))->Name) {
        return addresses;
      }
    }
  }
  return nullptr;
}

template <class Function>
void replace(const char* name, Function*& original, Function* by) {
  std::uintptr_t* const slot = findImport(name);
  if (slot == nullptr) {
    return; // the test compares the walked functions with the program's imports
  }
  original = reinterpret_cast<Function*>(*slot);
  DWORD protection = 0;
  VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
  *slot = reinterpret_cast<std::uintptr_t>(by);
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

/// Functions are numbered alike in every process of a walk.
int numberOf(const char* name) {
  for (int i = 0; i < faults::kMostFunctions; ++i) {
    char* const known = walk->functions[i].name;
    if (known[0] == '\0') {
      std::strncpy(known, name, faults::kNameSize - 1);
    }
    if (std::strcmp(known, name) == 0) {
      return i;
    }
  }
  std::abort();
}

template <Text Name, class Signature, auto Before = nothing, auto After = nothing,
          auto Reached = nothing>
struct Replaced : Import<Name, Signature, Before, After, Reached> {
  using This = Import<Name, Signature, Before, After, Reached>;
  static void watched() {
    This::number = numberOf(Name.data);
    replace<Signature>(Name.data, This::original, This::made);
  }
  template <class Failure>
  static void failing(Kind kind, Failure failure, DWORD error, bool madeAllTheSame) {
    This::number = numberOf(Name.data);
    This::kind = kind;
    This::failure = failure;
    This::error = error;
    This::madeAllTheSame = madeAllTheSame;
    replace<Signature>(Name.data, This::original, This::madeOrFailed);
  }
};

// -- what some of them need to be told

constexpr auto isInMain = [](auto...) {
  if (walk->mainCall == 0 && isFirstThread()) {
    walk->mainCall = wayHere(0).root;
  }
};
constexpr auto beginsLine = [](DWORD, BOOL, LPCWSTR) {
  if (turnHolder == GetCurrentThreadId()) {
    InterlockedExchange(&walk->turnKept, 1);
  }
};
constexpr auto givesTurnBack = [](HANDLE event) {
  if (event == turn) {
    turnHolder = 0;
  }
};
constexpr auto waitsForTurn = [](HANDLE event, DWORD) {
  if (event == turn && turnHolder == GetCurrentThreadId()) {
    InterlockedExchange(&walk->turnKept, 1);
  }
};
constexpr auto takesTurn = [](int, DWORD result, HANDLE event, DWORD) {
  if (event == turn && result == WAIT_OBJECT_0) {
    turnHolder = GetCurrentThreadId();
  }
};
constexpr auto opensEvent = [](int number, HANDLE event, LPSECURITY_ATTRIBUTES, BOOL, BOOL,
                               LPCSTR name) {
  if (event != nullptr && name != nullptr && std::string_view(name) == "Write") {
    turn = event;
    turnHolder = GetCurrentThreadId();
  }
  // The runtime's mutexes make theirs when two threads first meet, and keep it.
  if (!isIn(walk->mutexes, wayHere(number).frames[0] - 1)) {
    opened(number, event);
  }
};
constexpr auto parks = [](DWORD milliseconds) {
  if (milliseconds == INFINITE) {
    InterlockedExchange(&walk->parked, 1);
  }
};
constexpr auto leavesCom = [] {
  if (!isFirstThread()) {
    InterlockedExchange(&walk->withoutEvents, 1);
  }
};
constexpr auto opensToken = [](int number, BOOL done, HANDLE, DWORD, BOOL, PHANDLE token) {
  if (done) {
    opened(number, *token);
  }
};
constexpr auto opensCopy = [](int number, BOOL done, HANDLE, HANDLE, HANDLE, LPHANDLE copy, DWORD,
                              BOOL, DWORD) {
  if (done) {
    opened(number, *copy);
  }
};
constexpr auto opensKey = [](int number, LSTATUS result, HKEY, LPCSTR, DWORD, REGSAM, PHKEY key) {
  if (result == ERROR_SUCCESS) {
    opened(number, *key);
  }
};
constexpr auto opensDescriptor = [](int number, BOOL done, LPCSTR, DWORD,
                                    PSECURITY_DESCRIPTOR* descriptor, PULONG) {
  if (done) {
    opened(number, *descriptor);
  }
};
constexpr auto opensThread = [](int number, std::uintptr_t thread, auto...) {
  opened(number, thread);
};
constexpr auto takesMemory = [](int number, void* block, std::size_t size) {
  opened(number, block, size);
};
constexpr auto takesZeroedMemory = [](int number, void* block, std::size_t count,
                                      std::size_t size) { opened(number, block, count * size); };
constexpr auto takesMoreMemory = [](int number, void* block, void*, std::size_t size) {
  opened(number, block, size);
};
constexpr auto clearsVariant = [](VARIANTARG* variant) {
  if (variant->vt == VT_BSTR) {
    closed(variant->bstrVal);
  }
};
// A conversion in place ends the old string, and may make a new one.
int changedStrings = 0;
constexpr auto changesVariant = [](VARIANTARG* target, const VARIANTARG*, USHORT, VARTYPE) {
  clearsVariant(target);
};
constexpr auto changedVariant = [](int, HRESULT, VARIANTARG* target, const VARIANTARG*, USHORT,
                                   VARTYPE) {
  if (target->vt == VT_BSTR) {
    opened(changedStrings, target->bstrVal);
  }
};

// Windows refuses what a code page does not allow, where Wine takes anything: UTF-8, which may be
// the machine's own, and GB18030 take one flag only, and UTF-8 no replacement character.
constexpr UINT kGb18030 = 54936;
decltype(MultiByteToWideChar)* multiByteToWideChar = nullptr;
decltype(WideCharToMultiByte)* wideCharToMultiByte = nullptr;

UINT resolved(UINT codePage) {
  return codePage == CP_ACP || codePage == CP_THREAD_ACP ? GetACP() : codePage;
}

bool isRefused(UINT codePage, DWORD flags, DWORD allowed) {
  return (codePage == CP_UTF8 || codePage == kGb18030) && (flags & ~allowed) != 0;
}

int WINAPI strictMultiByteToWideChar(UINT codePage, DWORD flags, LPCCH text, int length,
                                     LPWSTR wide, int size) {
  if (isRefused(resolved(codePage), flags, MB_ERR_INVALID_CHARS)) {
    SetLastError(ERROR_INVALID_FLAGS);
    return 0;
  }
  return multiByteToWideChar(codePage, flags, text, length, wide, size);
}

int WINAPI strictWideCharToMultiByte(UINT codePage, DWORD flags, LPCWCH wide, int length,
                                     LPSTR text, int size, LPCCH replacement, LPBOOL wasReplaced) {
  if (isRefused(resolved(codePage), flags, WC_ERR_INVALID_CHARS)) {
    SetLastError(ERROR_INVALID_FLAGS);
    return 0;
  }
  if (resolved(codePage) == CP_UTF8 && (replacement != nullptr || wasReplaced != nullptr)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  return wideCharToMultiByte(codePage, flags, wide, length, text, size, replacement, wasReplaced);
}

// The signature is that of the function's own declaration.
#define FAILS(function, failure, error, ...)                                                       \
  Replaced<#function, decltype(function) __VA_OPT__(, ) __VA_ARGS__>::failing(                     \
      Kind::kPlatform, failure, error, false)
#define FAILS_WHEN_DONE(function, failure, error, ...)                                             \
  Replaced<#function, decltype(function) __VA_OPT__(, ) __VA_ARGS__>::failing(                     \
      Kind::kPlatform, failure, error, true)
#define RUNS_OUT(function, ...)                                                                    \
  Replaced<#function, decltype(function), __VA_ARGS__>::failing(Kind::kMemory, nullptr,            \
                                                                ERROR_NOT_ENOUGH_MEMORY, false)
#define IS_WATCHED(function, ...) Replaced<#function, decltype(function), __VA_ARGS__>::watched()

void install() {
  // Each with a failure that its documentation names.
  RUNS_OUT(malloc, nothing, takesMemory);
  RUNS_OUT(calloc, nothing, takesZeroedMemory);
  RUNS_OUT(SysAllocString, nothing, opens);
  RUNS_OUT(SysAllocStringLen, nothing, opens);

  FAILS(CreateEventA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opensEvent);
  FAILS(CreateMutexA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opens);
  FAILS(CreateSemaphoreA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opens);
  FAILS(CreateThread, nullptr, ERROR_NOT_ENOUGH_MEMORY, nothing, opens);
  FAILS(CreateTimerQueue, nullptr, ERROR_NO_SYSTEM_RESOURCES);
  FAILS(CreateTimerQueueTimer, FALSE, ERROR_NO_SYSTEM_RESOURCES);
  FAILS(OpenEventW, nullptr, ERROR_ACCESS_DENIED, nothing, opens, beginsLine);
  FAILS(_beginthreadex, 0U, ERROR_NOT_ENOUGH_MEMORY, nothing, opensThread);
  FAILS(GetModuleFileNameA, 0U, ERROR_NOT_ENOUGH_MEMORY);
  FAILS(GetCurrentDirectoryA, 0U, ERROR_NOT_ENOUGH_MEMORY);
  replace("MultiByteToWideChar", multiByteToWideChar, strictMultiByteToWideChar);
  replace("WideCharToMultiByte", wideCharToMultiByte, strictWideCharToMultiByte);
  FAILS(MultiByteToWideChar, 0, ERROR_NO_UNICODE_TRANSLATION);
  FAILS(WideCharToMultiByte, 0, ERROR_NO_UNICODE_TRANSLATION);

  FAILS(GetFileAttributesExA, FALSE, ERROR_ACCESS_DENIED);
  FAILS(DeleteFileA, FALSE, ERROR_SHARING_VIOLATION);
  FAILS(MoveFileA, FALSE, ERROR_SHARING_VIOLATION);
  FAILS(_fsopen, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(fgets, nullptr, ERROR_READ_FAULT);
  FAILS(fwrite, 0U, ERROR_DISK_FULL);
  FAILS(fflush, EOF, ERROR_DISK_FULL);
  FAILS_WHEN_DONE(fclose, EOF, ERROR_DISK_FULL, closes);
  FAILS(puts, EOF, ERROR_DISK_FULL, nothing, nothing, isInMain);

  FAILS(RegOpenKeyExA, ERROR_ACCESS_DENIED, ERROR_SUCCESS, nothing, opensKey);
  FAILS(RegQueryValueExA, ERROR_ACCESS_DENIED, ERROR_SUCCESS);

  FAILS(OpenSCManagerA, nullptr, ERROR_ACCESS_DENIED, nothing, opens, isInMain);
  FAILS(OpenServiceA, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(CreateServiceA, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(StartServiceA, FALSE, ERROR_SERVICE_DATABASE_LOCKED);
  FAILS(ControlService, FALSE, ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
  FAILS(DeleteService, FALSE, ERROR_SERVICE_MARKED_FOR_DELETE);
  FAILS(QueryServiceStatus, FALSE, ERROR_ACCESS_DENIED);
  FAILS(StartServiceCtrlDispatcherA, FALSE, ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);

  FAILS(ConvertStringSecurityDescriptorToSecurityDescriptorA, FALSE, ERROR_NOT_ENOUGH_MEMORY,
        nothing, opensDescriptor);
  FAILS(OpenThreadToken, FALSE, ERROR_ACCESS_DENIED, nothing, opensToken);
  FAILS(GetTokenInformation, FALSE, ERROR_ACCESS_DENIED);
  FAILS(AccessCheck, FALSE, ERROR_ACCESS_DENIED);

  FAILS(CoInitializeEx, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoInitializeSecurity, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoCreateInstance, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoGetClassObject, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoImpersonateClient, RPC_E_CALL_COMPLETE, ERROR_SUCCESS);
  FAILS_WHEN_DONE(CoRevertToSelf, RPC_E_CALL_COMPLETE, ERROR_SUCCESS);
  FAILS(VariantChangeType, E_OUTOFMEMORY, ERROR_SUCCESS, changesVariant, changedVariant);
  FAILS(GetMessageA, -1, ERROR_INVALID_HANDLE);

  FAILS(WSAStartup, WSASYSNOTREADY, ERROR_SUCCESS);
  FAILS(socket, INVALID_SOCKET, WSAEMFILE, nothing, opens);
  FAILS(connect, SOCKET_ERROR, WSAENOBUFS);
  FAILS(bind, SOCKET_ERROR, WSAENOBUFS);
  FAILS(listen, SOCKET_ERROR, WSAENOBUFS);
  FAILS(accept, INVALID_SOCKET, WSAENOBUFS, nothing, opens);
  FAILS(send, SOCKET_ERROR, WSAENOBUFS);
  FAILS(recv, SOCKET_ERROR, WSAENOBUFS);
  FAILS(recvfrom, SOCKET_ERROR, WSAENOBUFS);
  FAILS(WSAEventSelect, SOCKET_ERROR, WSAENOBUFS);
  FAILS(WSAEnumNetworkEvents, SOCKET_ERROR, WSAENOBUFS);
  FAILS_WHEN_DONE(closesocket, SOCKET_ERROR, WSAENETDOWN, closes);

  IS_WATCHED(DuplicateHandle, nothing, opensCopy);
  IS_WATCHED(realloc, closes, takesMoreMemory);
  IS_WATCHED(free, closes);
  IS_WATCHED(CloseHandle, closes);
  IS_WATCHED(CloseServiceHandle, closes);
  IS_WATCHED(RegCloseKey, closes);
  IS_WATCHED(LocalFree, closes);
  IS_WATCHED(SysFreeString, closes);
  IS_WATCHED(VariantClear, clearsVariant);
  IS_WATCHED(SetEvent, givesTurnBack);
  IS_WATCHED(WaitForSingleObject, waitsForTurn, takesTurn);
  IS_WATCHED(Sleep, parks);
  IS_WATCHED(CoUninitialize, leavesCom);
  changedStrings = numberOf("VariantChangeType");
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  if (reason != DLL_PROCESS_ATTACH) {
    return TRUE;
  }
  const HANDLE section = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, faults::kSection);
  walk = static_cast<Walk*>(MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Walk)));
  if (walk == nullptr) {
    return FALSE;
  }
  programBegin = reinterpret_cast<std::uintptr_t>(GetModuleHandleA(nullptr));
  install();
  return TRUE;
}
