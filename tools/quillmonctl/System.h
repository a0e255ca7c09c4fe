#pragma once

#include "quillmonctl/Failure.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The system's services that several commands need. Text is UTF-8. What fails throws Failure with
/// the step's name, unless a comment says otherwise.
namespace ctl {

std::wstring wide(std::string_view text, UINT codePage = CP_UTF8);
std::string utf8(std::wstring_view text);
/// Text in the system's ANSI code page, in which the service thinks.
std::string utf8FromAnsi(std::string_view text);
std::string ansi(std::string_view text);

SystemError win32Error(DWORD number = GetLastError());
SystemError hresultError(HRESULT result);

[[noreturn]] void failWin32(std::string step, DWORD number = GetLastError(),
                            std::string advice = {});
[[noreturn]] void failHResult(std::string step, HRESULT result, std::string advice = {});

/// Without the backslash at the end.
std::string systemFolder();
std::string programFolder();
/// "C:": the drive of the service's current directory, to which its rooted paths refer.
std::string serviceDrive();
std::string absolutePath(const std::string& path);

bool exists(const std::string& path);
/// Changes with every write: the size alone may be the same after a rotation.
struct FileStamp {
  std::uint64_t size = 0;
  std::uint64_t written = 0;
  bool operator==(const FileStamp&) const = default;
};
std::optional<FileStamp> fileStamp(const std::string& path);
/// None where there is no file. The file may be written, renamed and deleted meanwhile.
std::optional<std::string> readFile(const std::string& path);
/// Whoever reads the file sees the old content or the new one. Makes the folder.
void replaceFile(const std::string& path, std::string_view content);
/// The version in the file's resources, as "1.2.3"; empty where it has none.
std::string fileVersion(const std::string& path);

struct ProgramResult {
  DWORD exitCode = 0;
  std::string output; ///< standard output and error
};
/// Runs a program to its end, in its own folder.
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& arguments);
/// Runs another program with this program's own arguments, input and output. Its exit code.
DWORD runInstead(const std::string& program);

} // namespace ctl
