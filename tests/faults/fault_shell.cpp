// fault_shell: starts a program with faults.dll in it, and takes commands from standard input, one
// a line with tabs between the words; each is answered with one line.
//
//   start ARMED COMMAND LINE   standard output goes to the file C:\faults.out; ARMED is 0 or 1
//   walk KIND DEPTH [ONLY]     what is to be failed: KIND 0 any, 1 platform, 2 memory; ONLY one
//                              function
//   skip FILE                  nothing fails that is called from the code that the file's lines
//                              name: two offsets into the program each, from and to, in order
//   below FILE                 only that fails which is called from there; an empty file: whatever
//   mutexes FILE               the events that this code makes are not counted as held
//   arm | disarm               the next call that is due fails; none does any more
//   report                     what failed and what the program holds, as JSON
//   wait MILLISECONDS          the program's exit code; "running" if it has none by then
//   quit                       ends the program's message loop
//   kill                       ends the program

#include "Walk.h"
#include "win/Handles.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using faults::Walk;

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": error " + std::to_string(GetLastError()));
}

/// Made at the first use, and there as long as the shell or the program lives.
Walk& sharedWalk() {
  static Walk* const walk = [] {
    const HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                              sizeof(Walk), faults::kSection);
    void* const view = MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Walk));
    if (view == nullptr) {
      fail("no shared memory");
    }
    return static_cast<Walk*>(view);
  }();
  return *walk;
}

std::string besideThisProgram(const char* name) {
  char path[MAX_PATH];
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::string text = path;
  return text.substr(0, text.rfind('\\') + 1) + name;
}

class Program {
public:
  /// With faults.dll loaded before the first instruction.
  explicit Program(std::string commandLine) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    const win::Handle output(CreateFileA("C:\\faults.out", GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_DELETE, &inherited,
                                         CREATE_ALWAYS, 0, nullptr));
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.get();
    startup.hStdError = output.get();
    PROCESS_INFORMATION started{};
    if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, "C:\\Quillmon", &startup, &started)) {
      fail("no process");
    }
    process_.reset(started.hProcess);
    const win::Handle thread(started.hThread);
    threadId_ = started.dwThreadId;
    sharedWalk().firstThread = threadId_;
    load(besideThisProgram("faults.dll"));
    ResumeThread(thread.get());
  }

  DWORD wait(DWORD milliseconds) const {
    DWORD code = STILL_ACTIVE;
    if (WaitForSingleObject(process_.get(), milliseconds) == WAIT_OBJECT_0) {
      GetExitCodeProcess(process_.get(), &code);
    }
    return code;
  }
  void quit() const { PostThreadMessageA(threadId_, WM_QUIT, 0, 0); }
  void kill() const {
    TerminateProcess(process_.get(), 99);
    WaitForSingleObject(process_.get(), INFINITE);
  }

private:
  void load(const std::string& dll) const {
    void* const remote =
        VirtualAllocEx(process_.get(), nullptr, dll.size() + 1, MEM_COMMIT, PAGE_READWRITE);
    WriteProcessMemory(process_.get(), remote, dll.c_str(), dll.size() + 1, nullptr);
    const auto loadLibrary =
        reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<std::uintptr_t>(
            GetProcAddress(GetModuleHandleA("kernel32"), "LoadLibraryA")));
    const win::Handle loader(
        CreateRemoteThread(process_.get(), nullptr, 0, loadLibrary, remote, 0, nullptr));
    DWORD loaded = 0;
    WaitForSingleObject(loader.get(), INFINITE);
    if (!GetExitCodeThread(loader.get(), &loaded) || loaded == 0) {
      fail("faults.dll was not loaded");
    }
  }

  win::Handle process_;
  DWORD threadId_ = 0;
};

void report(const Walk& walk) {
  std::cout << "{\"failed\": ";
  if (walk.failed != 0) {
    std::cout << '"' << walk.failedName << '"';
  } else {
    std::cout << "null";
  }
  std::cout << ", \"parked\": " << walk.parked << ", \"without_events\": " << walk.withoutEvents
            << ", \"kept\": " << walk.turnKept << ", \"stack\": [" << std::hex;
  const char* between = "";
  for (const ULONG64 frame : walk.failedStack) {
    std::cout << between << "\"" << frame << "\"";
    between = ", ";
  }
  std::cout << "], \"functions\": {" << std::dec;
  between = "";
  for (const faults::Function& function : walk.functions) {
    if (function.name[0] != '\0') {
      std::cout << between << '"' << function.name << "\": [" << function.held << ", "
                << function.bytes << ", " << function.failures << ']';
      between = ", ";
    }
  }
  std::cout << "}}" << std::endl;
}

void read(faults::Ranges& ranges, const std::string& file) {
  std::ifstream lines(file);
  faults::Range range{};
  for (ranges.count = 0; lines >> range.from >> range.to; ++ranges.count) {
    if (ranges.count == faults::kMostRanges) {
      throw std::runtime_error("too many ranges");
    }
    ranges.ranges[ranges.count] = range;
  }
}

void arm(Walk& walk, bool armed) {
  if (armed) {
    InterlockedExchange(&walk.failed, 0);
    InterlockedIncrement(&walk.run);
  }
  InterlockedExchange(&walk.armed, armed ? 1 : 0);
}

void forgetTheLastProgram(Walk& walk) {
  for (faults::Function& function : walk.functions) {
    function.held = 0;
    function.bytes = 0;
  }
  walk.parked = 0;
  walk.withoutEvents = 0;
  walk.turnKept = 0;
}

std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> found;
  std::istringstream text(line);
  for (std::string word; std::getline(text, word, '\t');) {
    found.push_back(word);
  }
  return found;
}

void shell() {
  Walk& walk = sharedWalk();
  std::unique_ptr<Program> program;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    const std::vector<std::string> command = words(line);
    const std::string& verb = command.at(0);
    if (verb == "report") {
      report(walk);
      continue;
    }
    if (verb == "wait") {
      const DWORD code = program->wait(std::stoul(command.at(1)));
      std::cout << (code == STILL_ACTIVE ? "running" : std::to_string(code)) << std::endl;
      continue;
    }
    if (verb == "start") {
      forgetTheLastProgram(walk);
      arm(walk, command.at(1) == "1");
      program = std::make_unique<Program>(command.at(2));
    } else if (verb == "walk") {
      walk.kind = static_cast<faults::Kind>(std::stol(command.at(1)));
      walk.depth = std::stol(command.at(2));
      std::strncpy(walk.only, command.size() > 3 ? command[3].c_str() : "", faults::kNameSize - 1);
    } else if (verb == "skip") {
      read(walk.skipped, command.at(1));
    } else if (verb == "below") {
      read(walk.below, command.at(1));
    } else if (verb == "mutexes") {
      read(walk.mutexes, command.at(1));
    } else if (verb == "arm" || verb == "disarm") {
      arm(walk, verb == "arm");
    } else if (verb == "quit") {
      program->quit();
    } else if (verb == "kill") {
      program->kill();
    } else {
      throw std::runtime_error("no such command: " + verb);
    }
    std::cout << "ok" << std::endl;
  }
}

} // namespace

int main() try {
  shell();
  return 0;
} catch (const std::exception& exception) {
  std::cout << "fault_shell: " << exception.what() << std::endl;
  return 1;
}
