// handle_count PROGRAM: for each line on standard input, prints how many handles the first process
// of that program holds, -1 if there is none. It asks for the system's list of processes: under
// Wine that is the server's own count, where the one for a single process is always 0.

#include <windows.h>
#include <winternl.h>

#include <cstddef>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr NTSTATUS kLengthMismatch = static_cast<NTSTATUS>(0xC0000004);

/// Empty if the system does not tell.
std::vector<std::byte> processes() {
  for (ULONG size = 1 << 16;; size *= 2) {
    std::vector<std::byte> area(size);
    const NTSTATUS status =
        NtQuerySystemInformation(SystemProcessInformation, area.data(), size, nullptr);
    if (status != kLengthMismatch) {
      return status == 0 ? area : std::vector<std::byte>();
    }
  }
}

long handlesOf(std::wstring_view program) {
  const std::vector<std::byte> all = processes();
  for (std::size_t at = 0; at < all.size();) {
    const auto& process = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(all.data() + at);
    const UNICODE_STRING& name = process.ImageName;
    if (name.Buffer != nullptr && program == std::wstring_view(name.Buffer, name.Length / 2)) {
      return static_cast<long>(process.HandleCount);
    }
    if (process.NextEntryOffset == 0) {
      break;
    }
    at += process.NextEntryOffset;
  }
  return -1;
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
