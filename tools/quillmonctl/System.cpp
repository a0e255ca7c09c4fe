#include "quillmonctl/System.h"

#include "win/Automation.h"
#include "win/Handles.h"

#include <fmt/format.h>
#include <wbemcli.h>
#include <winver.h>
#include <wrl/client.h>

#include <array>
#include <utility>

namespace ctl {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// CreateFile has an invalid value of its own.
win::Handle openFile(const std::string& path, DWORD access, DWORD share, DWORD disposition) {
  const HANDLE file = CreateFileW(wide(path).c_str(), access, share, nullptr, disposition,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  return win::Handle(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

std::string trimmed(std::wstring_view text) {
  const std::size_t end = text.find_last_not_of(L" \t\r\n.");
  std::string line = utf8(text.substr(0, end + 1));
  for (char& c : line) {
    c = c == '\r' || c == '\n' ? ' ' : c;
  }
  return line;
}

std::string systemText(DWORD number) {
  win::LocalMemory memory;
  wchar_t* text = nullptr;
  const DWORD length = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, number, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  memory.reset(text);
  return trimmed({text, text == nullptr ? 0 : length});
}

/// WMI's own words for its codes, which the system's table lacks.
std::string wmiText(HRESULT result) {
  Microsoft::WRL::ComPtr<IWbemStatusCodeText> texts;
  win::Bstr text;
  BSTR raw = nullptr;
  if (SUCCEEDED(CoCreateInstance(CLSID_WbemStatusCodeText, nullptr, CLSCTX_INPROC_SERVER,
                                 IID_PPV_ARGS(&texts))) &&
      SUCCEEDED(texts->GetErrorCodeText(result, 0, 0, &raw))) {
    text.reset(raw);
  }
  return trimmed(text.text());
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as a path
void createFolders(const std::string& folder) {
  if (folder.size() <= 2 || exists(folder)) { // a drive is there, or nothing helps
    return;
  }
  createFolders(folder.substr(0, folder.rfind('\\')));
  if (!CreateDirectoryW(wide(folder).c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
    failWin32(fmt::format("making the folder {}", folder));
  }
}

} // namespace

std::wstring wide(std::string_view text, UINT codePage) {
  const int length = static_cast<int>(text.size());
  std::wstring result(
      static_cast<std::size_t>(MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0)),
      L'\0');
  MultiByteToWideChar(codePage, 0, text.data(), length, result.data(),
                      static_cast<int>(result.size()));
  return result;
}

std::string utf8(std::wstring_view text) {
  const int length = static_cast<int>(text.size());
  std::string result(static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, text.data(), length,
                                                                  nullptr, 0, nullptr, nullptr)),
                     '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(),
                      static_cast<int>(result.size()), nullptr, nullptr);
  return result;
}

std::string utf8FromAnsi(std::string_view text) {
  return utf8(wide(text, CP_ACP));
}

std::string ansi(std::string_view text) {
  return win::narrow(wide(text));
}

SystemError win32Error(DWORD number) {
  return {SystemError::Kind::Win32, number, systemText(number)};
}

SystemError hresultError(HRESULT result) {
  const auto number = static_cast<std::uint32_t>(result);
  std::string text = wmiText(result);
  if (text.empty() || text.find("0x") != std::string::npos) { // Wine says the number in words
    text = wmiMessage(number);
  }
  if (text.empty()) {
    text = systemText(number);
  }
  return {SystemError::Kind::HResult, number, text};
}

void failWin32(std::string step, DWORD number, std::string advice) {
  SystemError error = win32Error(number);
  if (advice.empty()) {
    advice = adviceFor(error);
  }
  throw Failure(std::move(step), std::move(error), std::move(advice));
}

void failHResult(std::string step, HRESULT result, std::string advice) {
  SystemError error = hresultError(result);
  if (advice.empty()) {
    advice = adviceFor(error);
  }
  throw Failure(std::move(step), std::move(error), std::move(advice));
}

std::string systemFolder() {
  std::array<wchar_t, MAX_PATH> path{};
  return utf8({path.data(), GetSystemDirectoryW(path.data(), MAX_PATH)});
}

std::string serviceDrive() {
  return systemFolder().substr(0, 2); // services start in the system folder
}

std::string programFolder() {
  std::wstring path(MAX_PATH, L'\0');
  DWORD length = 0;
  while ((length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()))) ==
         path.size()) {
    path.resize(2 * path.size());
  }
  path.resize(length);
  return utf8(path.substr(0, path.rfind(L'\\')));
}

std::string absolutePath(const std::string& path) {
  const std::wstring name = wide(path);
  std::wstring result(GetFullPathNameW(name.c_str(), 0, nullptr, nullptr), L'\0');
  result.resize(
      GetFullPathNameW(name.c_str(), static_cast<DWORD>(result.size()), result.data(), nullptr));
  return utf8(result);
}

bool exists(const std::string& path) {
  return GetFileAttributesW(wide(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::optional<FileStamp> fileStamp(const std::string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data = {};
  if (!GetFileAttributesExW(wide(path).c_str(), GetFileExInfoStandard, &data)) {
    return std::nullopt;
  }
  const auto join = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32U | low; };
  return FileStamp{join(data.nFileSizeHigh, data.nFileSizeLow),
                   join(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime)};
}

std::optional<std::string> readFile(const std::string& path) {
  const win::Handle file = openFile(path, GENERIC_READ, kShareAll, OPEN_EXISTING);
  if (!file) {
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
      return std::nullopt;
    }
    failWin32(fmt::format("opening {}", path), error);
  }
  std::string content;
  std::string piece(65536, '\0');
  DWORD count = 0;
  do {
    if (!::ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr)) {
      failWin32(fmt::format("reading {}", path));
    }
    content.append(piece, 0, count);
  } while (count > 0);
  return content;
}

void replaceFile(const std::string& path, std::string_view content) {
  createFolders(path.substr(0, path.rfind('\\')));
  const std::string draft = path + ".new";
  win::Handle file = openFile(draft, GENERIC_WRITE, 0, CREATE_ALWAYS);
  if (!file) {
    failWin32(fmt::format("making {}", draft));
  }
  DWORD written = 0;
  if (!WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written,
                 nullptr) ||
      written != content.size() || !FlushFileBuffers(file.get())) {
    const DWORD error = GetLastError();
    file.reset();
    DeleteFileW(wide(draft).c_str());
    failWin32(fmt::format("writing {}", draft), error);
  }
  file.reset();
  // ReplaceFile keeps the rights that the old file has; it needs one.
  const std::wstring target = wide(path);
  const BOOL replaced =
      exists(path) ? ReplaceFileW(target.c_str(), wide(draft).c_str(), nullptr, 0, nullptr, nullptr)
                   : MoveFileExW(wide(draft).c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH);
  if (!replaced) {
    const DWORD error = GetLastError();
    DeleteFileW(wide(draft).c_str());
    failWin32(fmt::format("putting the new {} in place of the old one", path), error);
  }
}

std::string fileVersion(const std::string& path) {
  const std::wstring name = wide(path);
  DWORD unused = 0;
  const DWORD size = GetFileVersionInfoSizeW(name.c_str(), &unused);
  std::vector<char> data(size);
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  if (size == 0 || !GetFileVersionInfoW(name.c_str(), 0, size, data.data()) ||
      !VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &length)) {
    return {};
  }
  return fmt::format("{}.{}.{}", HIWORD(info->dwFileVersionMS), LOWORD(info->dwFileVersionMS),
                     HIWORD(info->dwFileVersionLS));
}

ProgramResult runProgram(const std::string& program, const std::vector<std::string>& arguments) {
  SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
  win::Handle ours;
  win::Handle theirs;
  if (!CreatePipe(ours.put(), theirs.put(), &inheritable, 0)) {
    failWin32("making a pipe");
  }
  SetHandleInformation(ours.get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = theirs.get();
  start.hStdError = theirs.get();
  std::wstring line = L"\"" + wide(program) + L"\"";
  for (const std::string& argument : arguments) {
    const bool needsQuotes = argument.find(' ') != std::string::npos;
    line += L" " + wide(needsQuotes ? "\"" + argument + "\"" : argument);
  }
  const std::wstring folder = wide(program.substr(0, program.rfind('\\')));
  PROCESS_INFORMATION information = {};
  if (!CreateProcessW(wide(program).c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                      folder.c_str(), &start, &information)) {
    failWin32(fmt::format("starting {}", utf8(line)));
  }
  const win::Handle process(information.hProcess);
  const win::Handle thread(information.hThread);
  theirs.reset();
  ProgramResult ended;
  std::array<char, 4096> piece{};
  DWORD count = 0;
  while (::ReadFile(ours.get(), piece.data(), static_cast<DWORD>(piece.size()), &count, nullptr) &&
         count > 0) {
    ended.output.append(piece.data(), count);
  }
  WaitForSingleObject(process.get(), INFINITE);
  GetExitCodeProcess(process.get(), &ended.exitCode);
  return ended;
}

DWORD runInstead(const std::string& program) {
  // The arguments as they were typed: all behind the first word of the command line.
  const wchar_t* rest = GetCommandLineW();
  bool isQuoted = false;
  while (*rest != L'\0' && (isQuoted || (*rest != L' ' && *rest != L'\t'))) {
    isQuoted = isQuoted != (*rest == L'"');
    ++rest;
  }
  std::wstring line = L"\"" + wide(program) + L"\"" + rest;
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  start.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
  start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION information = {};
  if (!CreateProcessW(wide(program).c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                      nullptr, &start, &information)) {
    const DWORD error = GetLastError();
    failWin32(fmt::format("starting {}", program), error,
              error == ERROR_FILE_NOT_FOUND ? "It belongs beside quillmonctl.exe: copy it there."
                                            : "");
  }
  const win::Handle process(information.hProcess);
  const win::Handle thread(information.hThread);
  WaitForSingleObject(process.get(), INFINITE);
  DWORD exitCode = 0;
  GetExitCodeProcess(process.get(), &exitCode);
  return exitCode;
}

} // namespace ctl
