// fault_shell: starts a program with faults.dll in it, and takes commands from standard input, one
// a line. Each is answered by the program's exit code, or "running".
//
//   start COMMAND LINE   standard output goes to the file C:\faults.out
//   wait MILLISECONDS    until it has ended
//   quit                 ends its message loop
//   kill                 ends it

#include <windows.h>

#include <cstdint>
#include <iostream>
#include <string>

namespace {

PROCESS_INFORMATION program{};

std::string faultsDll() {
  char path[MAX_PATH];
  const std::string self(path, GetModuleFileNameA(nullptr, path, MAX_PATH));
  return self.substr(0, self.rfind('\\') + 1) + "faults.dll";
}

/// The program's first thread loads the DLL before the program's first instruction.
bool start(std::string commandLine) {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = startup.hStdError =
      CreateFileA("C:\\faults.out", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, &inherited,
                  CREATE_ALWAYS, 0, nullptr);
  CloseHandle(program.hProcess);
  CloseHandle(program.hThread);
  const bool started =
      CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                     "C:\\Quillmon", &startup, &program);
  CloseHandle(startup.hStdOutput);
  const std::string dll = faultsDll();
  void* const remote =
      VirtualAllocEx(program.hProcess, nullptr, dll.size() + 1, MEM_COMMIT, PAGE_READWRITE);
  WriteProcessMemory(program.hProcess, remote, dll.c_str(), dll.size() + 1, nullptr);
  const auto loadLibrary = reinterpret_cast<PAPCFUNC>(reinterpret_cast<std::uintptr_t>(
      GetProcAddress(GetModuleHandleA("kernel32"), "LoadLibraryA")));
  QueueUserAPC(loadLibrary, program.hThread, reinterpret_cast<ULONG_PTR>(remote));
  ResumeThread(program.hThread);
  return started;
}

} // namespace

int main() {
  for (std::string line; std::getline(std::cin, line);) {
    const std::string verb = line.substr(0, line.find(' '));
    const std::string argument = line.substr(line.find(' ') + 1);
    DWORD milliseconds = 0;
    if (verb == "start" && !start(argument)) {
      std::cout << "no process: error " << GetLastError() << std::endl;
      return 1;
    } else if (verb == "wait") {
      milliseconds = std::stoul(argument);
    } else if (verb == "quit") {
      PostThreadMessageA(program.dwThreadId, WM_QUIT, 0, 0);
    } else if (verb == "kill") {
      TerminateProcess(program.hProcess, 99);
      milliseconds = INFINITE;
    }
    DWORD code = 0;
    if (WaitForSingleObject(program.hProcess, milliseconds) == WAIT_OBJECT_0) {
      GetExitCodeProcess(program.hProcess, &code);
      std::cout << code << std::endl;
    } else {
      std::cout << "running" << std::endl;
    }
  }
}
