#pragma once

#include <string_view>

namespace xml {

/// Traces the current exception: two lines for the library's and XmlFailure; `unknownLine`, and a
/// line on standard error, for any other, the library's OutOfMemoryException among them.
void traceCurrentException(std::string_view unknownLine) noexcept;

/// Runs `read` and traces an exception instead of passing it on; false after an exception. Called
/// within the XmlLibrary session that `read` uses.
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

} // namespace xml
