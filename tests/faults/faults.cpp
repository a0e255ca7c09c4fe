// faults.dll: in the program that ships, makes one call of the system fail that a test has chosen,
// and counts what the program holds. Loaded into it by fault_shell before its first instruction;
// what the system's libraries call among themselves is not touched.
//
// A call is told from another by its function, the program's return addresses on the stack, and how
// often this way has been taken in this run. The test runs the program once to learn its calls,
// then once for each of them.

#include "PatchedImport.h"

#include <winsock2.h>
#include <windows.h>
#include <malloc.h>
#include <objbase.h>
#include <oleauto.h>
#include <process.h>
#include <psapi.h>
#include <sddl.h>
#include <share.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>

using test_support::importSlot;
using test_support::PatchedImport;

namespace {

// -- what the test and this DLL share, in a file that both map: see tests/system/faults.py

constexpr char kFile[] = "C:\\faults.bin";
constexpr int kMostFunctions = 128;
constexpr int kMostCalls = 1 << 14;
constexpr int kMostFrames = 24;

struct Function {
  char name[56];
  LONG64 held; ///< what it made and nobody has ended: handles and strings, or bytes of memory
};

struct Call {
  ULONG64 id;
  LONG function;
  LONG run;                    ///< the last one in which it was seen
  ULONG64 frames[kMostFrames]; ///< return addresses from the program's base, the innermost first
};

struct Walk {
  LONG volatile armed; ///< in the order of the test's doing: calls are recorded, or one fails
  LONG run;            ///< one more at each arming
  LONG depth;          ///< how many return addresses tell one way to a call from another
  LONG chosen;         ///< the call that fails; -1: none, all are recorded
  ULONG64 mutexes[2];  ///< the runtime's code from, to; the events that it makes are not counted

  LONG volatile failed;        ///< the chosen call was met
  LONG volatile turnKept;      ///< a thread waits for the trace writers' turn that it has itself
  LONG volatile withoutEvents; ///< a thread that is not the first has left COM: the event thread
  LONG volatile threads;       ///< how many the program has
  LONG volatile emptyReceives; ///< how many found nothing; their threads wait next
  LONG functionCount;
  LONG callCount;
  Function functions[kMostFunctions];
  Call calls[kMostCalls];
};

Walk* walk = nullptr;
MODULEINFO program{};
DWORD firstThread = 0;

/// The address as an offset into the program; beyond its size for one that is outside.
ULONG64 offsetInProgram(const void* address) {
  return reinterpret_cast<ULONG64>(address) - reinterpret_cast<ULONG64>(program.lpBaseOfDll);
}

// Never destroyed: the program calls until its very end.
std::mutex& lock = *new std::mutex;

// -- what the program holds

struct Held {
  int function;
  LONG64 amount;
};
auto& ledger = *new std::unordered_map<std::uintptr_t, Held>;

/// `value` is a handle, a pointer, a socket: whatever names what was made.
void closed(auto value) {
  std::scoped_lock locked(lock);
  if (const auto entry = ledger.extract(std::bit_cast<std::uintptr_t>(value))) {
    walk->functions[entry.mapped().function].held -= entry.mapped().amount;
  }
}

void opened(int function, auto value, std::size_t amount = 1) {
  const auto key = std::bit_cast<std::uintptr_t>(value);
  if (key == 0 || key == static_cast<std::uintptr_t>(-1)) {
    return;
  }
  closed(value); // ended unseen, by the system itself
  std::scoped_lock locked(lock);
  ledger[key] = {function, static_cast<LONG64>(amount)};
  walk->functions[function].held += ledger[key].amount;
}

// -- which call fails

/// The call that is being made, without how often it has been.
Call callHere(int function) {
  void* addresses[62];
  const USHORT found = RtlCaptureStackBackTrace(0, std::size(addresses), addresses, nullptr);
  Call call{14695981039346656037U, function, walk->run, {}};
  const auto mix = [&call](ULONG64 value) { call.id = (call.id ^ value) * 1099511628211U; };
  mix(static_cast<ULONG64>(function));
  int depth = 0;
  for (USHORT i = 0; i < found && depth < kMostFrames; ++i) {
    const ULONG64 offset = offsetInProgram(addresses[i]);
    if (offset < program.SizeOfImage) {
      call.frames[depth] = offset;
      if (depth < walk->depth) {
        mix(offset);
      }
      ++depth;
    }
  }
  return call;
}

/// How often this way has been taken in this run: 1, or 2 for more.
ULONG64 occurrence(ULONG64 way) {
  static auto& lastRuns = *new std::unordered_map<ULONG64, LONG>;
  return std::exchange(lastRuns[way], walk->run) == walk->run ? 2 : 1;
}

void record(const Call& call) {
  static auto& known = *new std::unordered_map<ULONG64, LONG>; // also those of earlier programs
  for (auto next = static_cast<LONG>(known.size()); next < walk->callCount; ++next) {
    known[walk->calls[next].id] = next;
  }
  const auto [entry, isNew] = known.try_emplace(call.id, walk->callCount);
  if (isNew && walk->callCount == kMostCalls) {
    std::abort();
  }
  walk->callCount += isNew ? 1 : 0;
  walk->calls[entry->second] = call;
}

/// Of memory any number of calls that take one way counts as one.
bool isToFail(int function, bool isMemory) {
  if (walk->armed == 0 || walk->failed != 0) {
    return false;
  }
  const Call* const chosen = walk->chosen < 0 ? nullptr : &walk->calls[walk->chosen];
  if (chosen != nullptr && chosen->function != function) {
    return false;
  }
  Call call = callHere(function);
  std::scoped_lock locked(lock);
  call.id += isMemory ? 1 : occurrence(call.id);
  if (chosen == nullptr) {
    record(call);
    return false;
  }
  if (walk->failed != 0 || call.id != chosen->id) {
    return false;
  }
  walk->failed = 1;
  return true;
}

// -- the functions in place of the imported ones

template <std::size_t Size>
struct Text {
  char data[Size];
  constexpr Text(const char (&text)[Size]) { std::copy(text, text + Size, data); }
};

template <class Result>
struct Failure {
  std::conditional_t<std::is_void_v<Result>, int, Result> result{};
  DWORD error = ERROR_SUCCESS; ///< Winsock's last error is the same
  bool isMemory = false;
  bool isDoneAllTheSame = false; ///< what only ends something: the loss would be the platform's
};

constexpr auto nothing = [](auto&&...) {};
constexpr auto takesAll = [](auto&&...) -> DWORD { return ERROR_SUCCESS; };

/// One imported function. `Before` sees the arguments of the calls that are made, `After` the
/// function's number and the result as well. `Refusal` gives the error that Windows refuses
/// arguments with which Wine takes.
template <Text Name, class Signature, auto Before, auto After, auto Refusal>
struct Import;

template <Text Name, class Result, class... Arguments, auto Before, auto After, auto Refusal>
struct Import<Name, Result(Arguments...), Before, After, Refusal> {
  static inline const PatchedImport<Result(Arguments...)>* patch = nullptr;
  static inline std::optional<Failure<Result>> failure; ///< none: it is watched only
  static inline int number = -1;

  static Result call(Arguments... arguments) {
    if constexpr (std::is_void_v<Result>) {
      Before(arguments...);
      patch->original()(arguments...);
    } else {
      const DWORD lastError = GetLastError();
      const bool fails = failure && isToFail(number, failure->isMemory);
      const bool isMade = !fails || failure->isDoneAllTheSame;
      const DWORD refusal = isMade ? Refusal(arguments...) : failure->error;
      if (!isMade || refusal != ERROR_SUCCESS) {
        SetLastError(refusal);
        return failure->result;
      }
      SetLastError(lastError);
      Before(arguments...);
      const Result result = patch->original()(arguments...);
      const DWORD error = GetLastError();
      After(number, result, arguments...);
      SetLastError(fails ? failure->error : error);
      return fails ? failure->result : result;
    }
  }

  static void replace(std::optional<Failure<Result>> documented = {}) {
    failure = documented;
    number = walk->functionCount++;
    std::strcpy(walk->functions[number].name, Name.data);
    if (importSlot(Name.data) != nullptr) { // not so in every flavour of the runtime
      patch = new PatchedImport(Name.data, call);
    }
  }
};

// -- what some of them need to be told

constexpr auto opens = [](int number, auto result, auto&&...) { opened(number, result); };
constexpr auto takes = [](int number, void* block, auto&&...) {
  opened(number, block, block == nullptr ? 0 : _msize(block));
};
constexpr auto closes = [](auto value, auto&&...) { closed(value); };

/// Opens what the argument of that number points to afterwards.
template <std::size_t Argument, auto Success>
constexpr auto opensIn = [](int number, auto result, auto... arguments) {
  if (result == Success) {
    opened(number, *std::get<Argument>(std::tuple(arguments...)));
  }
};

constexpr auto clearsVariant = [](VARIANTARG* variant, auto&&...) {
  if (variant->vt == VT_BSTR) {
    closed(variant->bstrVal);
  }
};
constexpr auto changesVariant = [](int number, HRESULT, VARIANTARG* variant, auto&&...) {
  if (variant->vt == VT_BSTR) {
    opened(number, variant->bstrVal);
  }
};

// The trace log's turn: an event that whoever creates it has first.
HANDLE volatile turn = nullptr;
DWORD volatile turnHolder = 0;

constexpr auto opensEvent = [](int number, HANDLE event, LPSECURITY_ATTRIBUTES, BOOL, BOOL,
                               LPCSTR name) {
  if (event != nullptr && name != nullptr && std::string_view(name) == "Write") {
    turn = event;
    turnHolder = GetCurrentThreadId();
  }
  // The runtime's mutexes make theirs when two threads first meet, and keep it.
  const ULONG64 caller = callHere(number).frames[0];
  if (caller < walk->mutexes[0] || caller >= walk->mutexes[1]) {
    opened(number, event);
  }
};
constexpr auto waitsForTurn = [](HANDLE event, DWORD) {
  if (event == turn && turnHolder == GetCurrentThreadId()) {
    walk->turnKept = 1;
  }
};
constexpr auto takesTurn = [](int, DWORD, HANDLE event, DWORD) {
  if (event == turn) {
    turnHolder = GetCurrentThreadId();
  }
};
constexpr auto givesTurnBack = [](HANDLE event) {
  if (event == turn) {
    turnHolder = 0;
  }
};
constexpr auto findsNothing = [](int, int received, auto&&...) {
  if (received < 0 && WSAGetLastError() == WSAEWOULDBLOCK) {
    InterlockedIncrement(&walk->emptyReceives);
  }
};
constexpr auto leavesCom = [] {
  if (GetCurrentThreadId() != firstThread) {
    walk->withoutEvents = 1;
  }
};

// UTF-8, which may be the machine's own page, and GB18030 take one flag only.
UINT resolved(UINT page) {
  return page == CP_ACP || page == CP_THREAD_ACP ? GetACP() : page;
}
DWORD refusal(UINT page, DWORD flags, DWORD taken) {
  const bool isRefused = (page == CP_UTF8 || page == 54936) && (flags & ~taken) != 0;
  return isRefused ? ERROR_INVALID_FLAGS : ERROR_SUCCESS;
}
constexpr auto widens = [](UINT page, DWORD flags, auto&&...) {
  return refusal(resolved(page), flags, MB_ERR_INVALID_CHARS);
};
constexpr auto narrows = [](UINT page, DWORD flags, LPCWCH, int, LPSTR, int, LPCCH replacement,
                            LPBOOL wasReplaced) {
  const DWORD error = refusal(resolved(page), flags, WC_ERR_INVALID_CHARS);
  const bool replaces = replacement != nullptr || wasReplaced != nullptr;
  return error == ERROR_SUCCESS && resolved(page) == CP_UTF8 && replaces
             ? static_cast<DWORD>(ERROR_INVALID_PARAMETER)
             : error;
};

// -- the table

template <Text Name, class Signature, auto Before = nothing, auto After = nothing,
          auto Refusal = takesAll>
constexpr auto replace = Import<Name, Signature, Before, After, Refusal>::replace;

// The signature is that of the function's own declaration.
#define FAILS(function, result, error, ...)                                                        \
  replace<#function, decltype(function) __VA_OPT__(, ) __VA_ARGS__>({{result, error}})
#define FAILS_WHEN_DONE(function, result, error, ...)                                              \
  replace<#function, decltype(function) __VA_OPT__(, ) __VA_ARGS__>({{result, error, false, true}})
#define RUNS_OUT(function, after)                                                                  \
  replace<#function, decltype(function), nothing, after>({{nullptr, ERROR_NOT_ENOUGH_MEMORY, true}})
#define IS_WATCHED(function, ...) replace<#function, decltype(function), __VA_ARGS__>({})

void replaceImports() {
  // Each with a failure that its documentation names: what it returns, and the last error.
  RUNS_OUT(malloc, takes);
  RUNS_OUT(calloc, takes);
  RUNS_OUT(SysAllocString, opens);
  RUNS_OUT(SysAllocStringLen, opens);

  FAILS(CreateEventA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opensEvent);
  FAILS(CreateMutexA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opens);
  FAILS(CreateSemaphoreA, nullptr, ERROR_NO_SYSTEM_RESOURCES, nothing, opens);
  FAILS(CreateThread, nullptr, ERROR_NOT_ENOUGH_MEMORY, nothing, opens);
  FAILS(CreateTimerQueue, nullptr, ERROR_NO_SYSTEM_RESOURCES);
  FAILS(CreateTimerQueueTimer, FALSE, ERROR_NO_SYSTEM_RESOURCES);
  FAILS(OpenEventW, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(_beginthreadex, 0U, ERROR_NOT_ENOUGH_MEMORY, nothing, opens);
  FAILS(GetModuleFileNameA, 0U, ERROR_NOT_ENOUGH_MEMORY);
  FAILS(GetCurrentDirectoryA, 0U, ERROR_NOT_ENOUGH_MEMORY);
  FAILS(MultiByteToWideChar, 0, ERROR_NO_UNICODE_TRANSLATION, nothing, nothing, widens);
  FAILS(WideCharToMultiByte, 0, ERROR_NO_UNICODE_TRANSLATION, nothing, nothing, narrows);

  FAILS(GetFileAttributesExA, FALSE, ERROR_ACCESS_DENIED);
  FAILS(DeleteFileA, FALSE, ERROR_SHARING_VIOLATION);
  FAILS(MoveFileA, FALSE, ERROR_SHARING_VIOLATION);
  FAILS(_fsopen, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(fgets, nullptr, ERROR_READ_FAULT);
  FAILS(fwrite, 0U, ERROR_DISK_FULL);
  FAILS(fflush, EOF, ERROR_DISK_FULL);
  FAILS_WHEN_DONE(fclose, EOF, ERROR_DISK_FULL, closes);
  FAILS(puts, EOF, ERROR_DISK_FULL);

  FAILS(RegOpenKeyExA, ERROR_ACCESS_DENIED, ERROR_SUCCESS, nothing, (opensIn<4, ERROR_SUCCESS>));
  FAILS(RegQueryValueExA, ERROR_ACCESS_DENIED, ERROR_SUCCESS);

  FAILS(OpenSCManagerA, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(OpenServiceA, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(CreateServiceA, nullptr, ERROR_ACCESS_DENIED, nothing, opens);
  FAILS(StartServiceA, FALSE, ERROR_SERVICE_DATABASE_LOCKED);
  FAILS(ControlService, FALSE, ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
  FAILS(DeleteService, FALSE, ERROR_SERVICE_MARKED_FOR_DELETE);
  FAILS(QueryServiceStatus, FALSE, ERROR_ACCESS_DENIED);
  FAILS(StartServiceCtrlDispatcherA, FALSE, ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);

  FAILS(ConvertStringSecurityDescriptorToSecurityDescriptorA, FALSE, ERROR_NOT_ENOUGH_MEMORY,
        nothing, (opensIn<2, TRUE>));
  FAILS(OpenThreadToken, FALSE, ERROR_ACCESS_DENIED, nothing, (opensIn<3, TRUE>));
  FAILS(GetTokenInformation, FALSE, ERROR_ACCESS_DENIED);
  FAILS(AccessCheck, FALSE, ERROR_ACCESS_DENIED);

  FAILS(CoInitializeEx, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoInitializeSecurity, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoCreateInstance, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoGetClassObject, E_OUTOFMEMORY, ERROR_SUCCESS);
  FAILS(CoImpersonateClient, RPC_E_CALL_COMPLETE, ERROR_SUCCESS);
  FAILS_WHEN_DONE(CoRevertToSelf, RPC_E_CALL_COMPLETE, ERROR_SUCCESS);
  // A conversion in place ends the old string, and may make a new one.
  FAILS(VariantChangeType, E_OUTOFMEMORY, ERROR_SUCCESS, clearsVariant, changesVariant);
  FAILS(GetMessageA, -1, ERROR_INVALID_HANDLE);

  FAILS(WSAStartup, WSASYSNOTREADY, ERROR_SUCCESS);
  FAILS(socket, INVALID_SOCKET, WSAEMFILE, nothing, opens);
  FAILS(connect, SOCKET_ERROR, WSAENOBUFS);
  FAILS(bind, SOCKET_ERROR, WSAENOBUFS);
  FAILS(listen, SOCKET_ERROR, WSAENOBUFS);
  FAILS(accept, INVALID_SOCKET, WSAENOBUFS, nothing, opens);
  FAILS(send, SOCKET_ERROR, WSAENOBUFS);
  FAILS(recv, SOCKET_ERROR, WSAENOBUFS, nothing, findsNothing);
  FAILS(recvfrom, SOCKET_ERROR, WSAENOBUFS);
  FAILS(WSAEventSelect, SOCKET_ERROR, WSAENOBUFS);
  FAILS(WSAEnumNetworkEvents, SOCKET_ERROR, WSAENOBUFS);
  FAILS_WHEN_DONE(closesocket, SOCKET_ERROR, WSAENETDOWN, closes);

  IS_WATCHED(DuplicateHandle, nothing, (opensIn<3, TRUE>));
  IS_WATCHED(realloc, closes, takes);
  IS_WATCHED(free, closes);
  IS_WATCHED(CloseHandle, closes);
  IS_WATCHED(CloseServiceHandle, closes);
  IS_WATCHED(RegCloseKey, closes);
  IS_WATCHED(LocalFree, closes);
  IS_WATCHED(SysFreeString, closes);
  IS_WATCHED(VariantClear, clearsVariant);
  IS_WATCHED(SetEvent, givesTurnBack);
  IS_WATCHED(WaitForSingleObject, waitsForTurn, takesTurn);
  IS_WATCHED(CoUninitialize, leavesCom);
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) {
    const HANDLE file =
        CreateFileA(kFile, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    const HANDLE section = CreateFileMappingA(file, nullptr, PAGE_READWRITE, 0, 0, nullptr);
    walk = static_cast<Walk*>(MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Walk)));
    if (walk == nullptr || !GetModuleInformation(GetCurrentProcess(), GetModuleHandleA(nullptr),
                                                 &program, sizeof program)) {
      return FALSE;
    }
    firstThread = GetCurrentThreadId();
    walk->threads = 1;
    replaceImports();
  } else if (reason == DLL_THREAD_ATTACH) {
    InterlockedIncrement(&walk->threads);
  } else if (reason == DLL_THREAD_DETACH) {
    InterlockedDecrement(&walk->threads);
  }
  return TRUE;
}
