// Switches the service's trace on, as an administrator's tool does: creates and signals the
// enabling event and holds it until standard input ends. A line "off" on standard input resets it.

#include <windows.h>

#include <iostream>
#include <string>

int main() {
  const HANDLE event = CreateEventA(nullptr, TRUE, TRUE, "Global\\TRC_QUILLMON");
  if (event == nullptr) {
    std::cerr << "trace_switch: no event: error " << GetLastError() << std::endl;
    return 1;
  }
  std::cout << "on" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "off" && ResetEvent(event)) {
      std::cout << "off" << std::endl;
    }
  }
  return 0;
}
