#pragma once

#include "trace/PrintfFormat.h"

#include <string>
#include <string_view>

/// The diagnostic trace of the whole service: one printf-style entry point, no object.
///
/// Off until an outside tool signals the named event "Global\TRC_QUILLMON"; once seen signalled it
/// stays on for the life of the process. When on, each call appends one line (local time, two
/// blanks, the message, CR LF) to the log file, which is rotated by size.
///
/// Threads: any, at any time, re-entrantly from inside the trace itself. Writers take turns through
/// a named event, so a line blocks while another one is written.
/// Text: a line is the message, byte by byte. A message may hold text of a peer, line ends and
/// control characters included: whoever shows the log must expect them. Costs: each call looks the
/// event up, switched on or not: one call of the system. Errors: none reach the caller; a line that
/// cannot be written is lost.
class UPOSLog {
public:
  /// Traces `format` with its conversions filled in. Checked: a conversion that has no argument of
  /// a fitting kind is written as it stands, so text from a peer is harmless as a format.
  template <class... Arguments>
  static void trace(std::string_view format, const Arguments&... arguments) noexcept {
    if (isSwitchedOn()) {
      emit(format, {TraceArgument(arguments)...});
    }
  }

  /// Lines are printed to standard output too; for the console modes, set before anything traces.
  static void setConsoleEcho() noexcept;

  /// The log file's path: found on first use, then fixed.
  static const std::string& logFilePath();

private:
  /// Tests the enabling event; true from the first time it was found signalled.
  static bool isSwitchedOn() noexcept;
  static void emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept;
  static void write(const std::string& path, const std::string& message);
  static void readConfig();
  static std::uint32_t rotate() noexcept;
  static void backup();
};
