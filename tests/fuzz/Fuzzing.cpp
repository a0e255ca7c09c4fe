#include "Fuzzing.h"

#include "trace/UPOSLog.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <iostream>

using trace::TraceArgument;
using trace::UPOSLog;

namespace fuzzing {

void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

std::string_view cutFront(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view front = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return front;
}

std::vector<std::string_view> piecesOf(std::string_view stream, std::string_view lengths) {
  std::vector<std::string_view> pieces;
  for (std::size_t i = 0; !stream.empty(); ++i) {
    std::size_t length = 1024;
    if (!lengths.empty()) {
      const auto byte = static_cast<unsigned char>(lengths[i % lengths.size()]);
      length = byte < 128 ? byte + 1U : (byte - 127U) * 8U;
    }
    pieces.push_back(stream.substr(0, length));
    stream.remove_prefix(pieces.back().size());
  }
  return pieces;
}

} // namespace fuzzing

/// The text of the readers is UTF-8, as in the unit tests; what they print would drown the report.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::require(std::setlocale(LC_ALL, "C.UTF-8") != nullptr, "there is a UTF-8 locale");
  std::cerr.rdbuf(nullptr);
  return 0;
}

// A trace that is switched on, whose lines are made and then forgotten.

bool UPOSLog::isSwitchedOn() noexcept {
  return true;
}

void UPOSLog::emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept {
  const std::string line = trace::formatPrintf(format, arguments);
  trace::formatPrintf(line, {}); // the console's echo shows a line as a format
}
