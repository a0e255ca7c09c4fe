#include "quillmonctl/Console.h"

#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/TraceLine.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>

namespace ctl::console {
namespace {

void write(DWORD which, std::string_view text) {
  const HANDLE out = GetStdHandle(which);
  DWORD mode = 0;
  DWORD written = 0;
  if (GetConsoleMode(out, &mode)) {
    const std::wstring wideText = wide(text);
    WriteConsoleW(out, wideText.data(), static_cast<DWORD>(wideText.size()), &written, nullptr);
    return;
  }
  while (!text.empty() &&
         WriteFile(out, text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
    text.remove_prefix(written);
  }
}

} // namespace

void print(std::string_view text) {
  write(STD_OUTPUT_HANDLE, text);
}

void printError(std::string_view text) {
  write(STD_ERROR_HANDLE, text);
}

bool showsColour() {
  const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
  return usesColour(GetConsoleMode(out, &mode) != FALSE, std::getenv("NO_COLOR")) &&
         SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != FALSE;
}

unsigned width() {
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info)) {
    return kWidth;
  }
  // One column stays free: a full line would wrap on some consoles.
  return static_cast<unsigned>(std::clamp(info.srWindow.Right - info.srWindow.Left, 79, 160));
}

} // namespace ctl::console
