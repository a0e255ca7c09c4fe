#pragma once

#include "trace/PrintfFormat.h"

#include <string>
#include <string_view>

namespace trace {

/// The diagnostic trace of the whole service: one printf-style entry point, no object.
///
/// Off until an external tool signals the named event "Global\TRC_QUILLMON"; then on until the
/// process ends. When on, each call appends one line (local time, two blanks, the message, CR LF)
/// to the log file, which is rotated by size.
///
/// Threads: any, at any time, re-entrantly. A named event serialises the writers, so a call blocks
/// while another one writes. Cost: one system call per trace call while the event does not exist,
/// three while it does; a line also opens and closes the log.
/// Errors: none reach the caller; a line that cannot be written is lost. By design a log that
/// cannot be opened, or a rotation that cannot start, blocks every later traced call for good.
/// Security: messages are written unchanged and may contain a peer's text with line ends and
/// control characters. Every reader of the log must expect them.
class UPOSLog {
public:
  /// Traces one line, see formatPrintf. A peer's text is safe as a format.
  template <class... Arguments>
  // NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
  static void trace(std::string_view format, const Arguments&... arguments) noexcept {
    if (isSwitchedOn()) {
      emit(format, {TraceArgument(arguments)...});
    }
  }

  /// Also prints every line to standard output. For the console modes; called before anything is
  /// traced.
  static void setConsoleEcho() noexcept;

  /// The log file's path; determined on first use.
  static const std::string& logFilePath();

private:
  /// Tests the enabling event; true since it was first found signalled.
  static bool isSwitchedOn() noexcept;
  static void emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept;
  static void write(const std::string& path, const std::string& message);
  static void readConfig();
  static std::uint32_t rotate() noexcept;
  static void backup();
};

} // namespace trace
