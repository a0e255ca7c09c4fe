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
/// Text: a message cannot pass for a second line (TraceText.h says how).
/// Errors: none reach the caller; a line that cannot be written is lost.
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

  /// Tests the enabling event; true from the first time it was found signalled.
  static bool isSwitchedOn() noexcept;

  /// While one lives, the lines of its thread share one look for the enabling event: a look is a
  /// call of the system, and a request or an event has lines by the dozen. May be nested.
  class Burst {
  public:
    Burst() noexcept;
    ~Burst();
    Burst(const Burst&) = delete;
    Burst& operator=(const Burst&) = delete;

  private:
    bool outermost_;
  };
  /// Looks once more in the middle of a burst: after each wait for somebody else, which may have
  /// been long.
  static void lookAgain() noexcept;

  /// Lines are printed to standard output too; for the console modes, set before anything traces.
  static void setConsoleEcho() noexcept;

  /// The log file's path: found on first use, then fixed.
  static const std::string& logFilePath();

private:
  static void emit(std::string_view format,
                   std::initializer_list<TraceArgument> arguments) noexcept;
  static void write(const std::string& path, const std::string& message);
  static void readConfig();
  static std::uint32_t rotate() noexcept;
  static void backup();
};
