#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ctl {

/// What the program ends with; --help and docs/quillmonctl.md list them.
enum class ExitCode : int {
  Done = 0,
  Failed = 1,           ///< a step failed; the message names it
  WrongCommandLine = 2, ///< nothing was done
  FoundWrong = 3,       ///< status, doctor, check-document ...: the report is whole
  NotFound = 4,         ///< no such device or class
  AccessDenied = 5,     ///< needs an elevated prompt
  TimedOut = 6,         ///< watch: fewer events than asked for
};

/// A number of the system's: a Win32 error is said in decimal, an HRESULT in hexadecimal.
struct SystemError {
  enum class Kind { Win32, HResult };
  Kind kind = Kind::Win32;
  std::uint32_t number = 0;
  std::string text; ///< the system's own words; may be empty
};

/// A step that failed: the command's end.
struct Failure : std::exception {
  std::string step;                 ///< "opening the service QuillmonServ"
  std::optional<SystemError> error; ///< none where the system was not asked
  std::string advice;               ///< what the reader can do
  ExitCode exitCode = ExitCode::Failed;
  std::vector<std::string> undone; ///< steps taken before and taken back

  Failure(std::string failedStep, std::string whatToDo, ExitCode code = ExitCode::Failed)
      : step(std::move(failedStep)), advice(std::move(whatToDo)), exitCode(code) {}
  Failure(std::string failedStep, SystemError why, std::string whatToDo);

  const char* what() const noexcept override { return step.c_str(); }
};

/// What a report keeps of it: the system's error, or the step in words.
SystemError errorOf(const Failure& failure);

/// "error 5: Access is denied."; "error 0x80041002: Not found".
std::string describe(const SystemError& error);

/// WMI's words for its most common codes, for where the system has none; empty for others.
std::string wmiMessage(std::uint32_t result);

/// What helps against an error that says little by itself; empty where nothing is known.
std::string adviceFor(const SystemError& error);

/// The message for the console, wrapped at 80 columns.
std::string toText(const Failure& failure, const char* program = "quillmonctl");

/// The same for scripts: {"error": {"step", "code", "code_text", "text", "advice", "undone"}}.
std::string toJson(const Failure& failure);

} // namespace ctl
