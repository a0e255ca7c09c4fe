#pragma once

#include <string_view>

/// Traces the exception that is being handled, in two lines; one of no known kind as `unknownLine`
/// alone, and on standard error.
void traceCurrentException(std::string_view unknownLine) noexcept;

/// Runs `read` where no exception may pass: the edge of both readers. False after an exception,
/// which is traced. Inside the session of the library that `read` uses.
template <class Read>
bool readGuarded(std::string_view unknownLine, const Read& read) noexcept {
  try {
    read();
    return true;
  } catch (...) {
    traceCurrentException(unknownLine);
    return false;
  }
}
