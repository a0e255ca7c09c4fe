// handle_count PROGRAM: for each line on standard input, prints how many handles the first process
// of that program holds, -1 if there is none. Counted in the system's table of all handles: what
// Wine gives as a process's number is the room that its table has.

#include <windows.h>
#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr NTSTATUS kLengthMismatch = static_cast<NTSTATUS>(0xC0000004);

/// Empty if the system does not tell.
std::vector<std::byte> query(SYSTEM_INFORMATION_CLASS what) {
  for (ULONG size = 1 << 16;; size *= 2) {
    std::vector<std::byte> area(size);
    const NTSTATUS status = NtQuerySystemInformation(what, area.data(), size, nullptr);
    if (status != kLengthMismatch) {
      return status == 0 ? area : std::vector<std::byte>();
    }
  }
}

/// 0 if no process runs that program.
ULONG processOf(std::wstring_view program) {
  const std::vector<std::byte> all = query(SystemProcessInformation);
  for (std::size_t at = 0; at < all.size();) {
    const auto& process = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(all.data() + at);
    const UNICODE_STRING& name = process.ImageName;
    if (name.Buffer != nullptr && program == std::wstring_view(name.Buffer, name.Length / 2)) {
      return HandleToULong(process.UniqueProcessId);
    }
    if (process.NextEntryOffset == 0) {
      break;
    }
    at += process.NextEntryOffset;
  }
  return 0;
}

std::ptrdiff_t handlesOf(std::wstring_view program) {
  const ULONG process = processOf(program);
  const std::vector<std::byte> all = query(SystemHandleInformation);
  if (process == 0 || all.empty()) {
    return -1;
  }
  const auto& table = *reinterpret_cast<const SYSTEM_HANDLE_INFORMATION*>(all.data());
  const std::span<const SYSTEM_HANDLE_ENTRY> entries(table.Handle, table.Count);
  return std::count_if(entries.begin(), entries.end(), [process](const SYSTEM_HANDLE_ENTRY& each) {
    return each.OwnerPid == process;
  });
}

} // namespace

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "usage: handle_count PROGRAM" << std::endl;
    return 2;
  }
  const std::string name = argv[1];
  const std::wstring program(name.begin(), name.end());
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << handlesOf(program) << std::endl;
  }
  return 0;
}
