// The package's custom actions: what Windows Installer's own tables cannot say. Examine runs first,
// as the installing user; it refuses before anything is changed, and hands every other action its
// data. The others run as the system, each with one beside it that takes it back. docs/install.md
// lists the numbers of the messages.

#include "win/Handles.h"

#include <aclapi.h>
#include <msi.h>
#include <msiquery.h>
#include <sddl.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr wchar_t kService[] = L"QuillmonServ";
constexpr wchar_t kProgram[] = L"quillmon.exe";
constexpr wchar_t kSeparator = L'|'; // no path holds one
constexpr DWORD kTimeout = 30'000;   // milliseconds for a stop, and for a program in use
constexpr DWORD kPollInterval = 100;

// The system and administrators everything, users read and start; nothing is inherited from above.
constexpr wchar_t kRights[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";
constexpr wchar_t kTrustedInstaller[] =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

/// Ends an action: its number, and what the log and the user are told.
struct Refusal {
  int number;
  std::wstring text;
};

using Fields = std::vector<std::wstring>;

std::wstring join(const Fields& fields) {
  std::wstring text;
  for (const std::wstring& field : fields) {
    text += field + kSeparator;
  }
  text.resize(text.empty() ? 0 : text.size() - 1);
  return text;
}

Fields split(const std::wstring& text) {
  Fields fields(1);
  for (const wchar_t c : text) {
    if (c == kSeparator) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

/// The installation that an action belongs to.
class Session {
public:
  explicit Session(MSIHANDLE install) : install_(install) {}

  std::wstring property(const wchar_t* name) const {
    DWORD size = 0;
    wchar_t none[] = L"";
    MsiGetPropertyW(install_, name, none, &size);
    std::wstring value(++size, L'\0');
    MsiGetPropertyW(install_, name, value.data(), &size);
    value.resize(size);
    return value;
  }
  void setProperty(const wchar_t* name, const std::wstring& value) const {
    MsiSetPropertyW(install_, name, value.c_str());
  }
  Fields data() const { return split(property(L"CustomActionData")); }

  void log(const std::wstring& text) const { say(INSTALLMESSAGE_INFO, text); }
  void refuse(const Refusal& refusal) const {
    say(INSTALLMESSAGE_ERROR,
        L"Quillmon error " + std::to_wstring(refusal.number) + L": " + refusal.text);
  }

private:
  void say(INSTALLMESSAGE kind, const std::wstring& text) const {
    const MSIHANDLE record = MsiCreateRecord(1);
    MsiRecordSetStringW(record, 0, L"[1]");
    MsiRecordSetStringW(record, 1, text.c_str());
    MsiProcessMessage(install_, kind, record);
    MsiCloseHandle(record);
  }

  MSIHANDLE install_;
};

template <class Job>
UINT run(MSIHANDLE install, Job&& job) {
  const Session session(install);
  try {
    job(session);
    return ERROR_SUCCESS;
  } catch (const Refusal& refusal) {
    session.refuse(refusal);
  } catch (const std::exception&) {
    session.refuse({10, L"Windows has no memory left."});
  }
  return ERROR_INSTALL_FAILURE;
}

bool sameText(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.data(), static_cast<int>(left.size()), right.data(),
                              static_cast<int>(right.size()), TRUE) == CSTR_EQUAL;
}

std::wstring withoutSlash(std::wstring path) {
  while (path.size() > 3 && path.back() == L'\\') {
    path.pop_back();
  }
  return path;
}

bool exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring errorText(DWORD error) {
  return L"error " + std::to_wstring(error);
}

// ---------------------------------------------------------------------------------------- folders

win::Handle open(const std::wstring& path, DWORD access) {
  const HANDLE file = CreateFileW(
      path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  return win::Handle(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

/// The account that installs, if it is an administrator; else empty.
std::wstring installingAdministrator() {
  std::array<BYTE, SECURITY_MAX_SID_SIZE> group{};
  DWORD size = group.size();
  BOOL isMember = FALSE;
  CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, group.data(), &size);
  win::Handle token;
  if (!CheckTokenMembership(nullptr, group.data(), &isMember) || !isMember ||
      (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) &&
       !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))) {
    return {};
  }
  alignas(TOKEN_USER) std::array<BYTE, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user{};
  size = user.size();
  wchar_t* text = nullptr;
  if (!GetTokenInformation(token.get(), TokenUser, user.data(), size, &size) ||
      !ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, &text)) {
    return {};
  }
  const win::LocalMemory memory(text);
  return text;
}

bool isTrusted(PSID owner, const std::wstring& administrator) {
  if (IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
      IsWellKnownSid(owner, WinLocalSystemSid) ||
      IsWellKnownSid(owner, WinAccountAdministratorSid) ||
      IsWellKnownSid(owner, WinAccountDomainAdminsSid)) {
    return true;
  }
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(owner, &text)) {
    return false;
  }
  const win::LocalMemory memory(text);
  return text == std::wstring(kTrustedInstaller) ||
         (!administrator.empty() && text == administrator);
}

/// Throws unless the folder or file is a real one and belongs to an administrator or the system:
/// anybody else who owns it can change it at any time.
void requireTrusted(const std::wstring& path, const std::wstring& administrator) {
  const DWORD attributes = GetFileAttributesW(path.c_str()); // of a link itself
  const win::Handle file = open(path, READ_CONTROL);
  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = attributes == INVALID_FILE_ATTRIBUTES || !file
                          ? GetLastError()
                          : GetSecurityInfo(file.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                            &owner, nullptr, nullptr, nullptr, &descriptor);
  if (error != ERROR_SUCCESS) {
    throw Refusal{5, path + L" cannot be examined (" + errorText(error) + L"). Look who owns it."};
  }
  const win::LocalMemory memory(descriptor);
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    throw Refusal{5, path + L" is a link to another place. Remove it, or put a real folder there."};
  }
  if (!isTrusted(owner, administrator)) {
    throw Refusal{5, path +
                         L" belongs neither to an administrator nor to the system. Look who made "
                         L"it; remove it, or make the administrators its owner."};
  }
}

void requireTrustedIfThere(const Fields& paths, const std::wstring& administrator) {
  for (const std::wstring& path : paths) {
    if (exists(path)) {
      requireTrusted(path, administrator);
    }
  }
}

/// C:\POS, C:\POS\JavaPOS, C:\POS\JavaPOS\Config
Fields foldersTo(const std::wstring& path) {
  Fields folders;
  for (std::size_t end = path.find(L'\\', 3); end != std::wstring::npos;
       end = path.find(L'\\', end + 1)) {
    folders.push_back(path.substr(0, end));
  }
  folders.push_back(path);
  return folders;
}

std::wstring rightsOf(const std::wstring& path) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  wchar_t* text = nullptr;
  if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, nullptr, nullptr, &descriptor) != ERROR_SUCCESS) {
    return {};
  }
  const win::LocalMemory memory(descriptor);
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
          descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
    return {};
  }
  const win::LocalMemory textMemory(text);
  return text;
}

win::LocalMemory descriptorOf(const std::wstring& rights) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(rights.c_str(), SDDL_REVISION_1, &descriptor,
                                                       nullptr);
  return win::LocalMemory(descriptor);
}

DWORD setRights(const std::wstring& path, const std::wstring& rights) {
  const win::Handle file = open(path, READ_CONTROL | WRITE_DAC);
  const win::LocalMemory descriptor = descriptorOf(rights);
  PACL list = nullptr;
  BOOL isPresent = FALSE;
  BOOL isDefault = FALSE;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  if (!file || !descriptor ||
      !GetSecurityDescriptorDacl(descriptor.get(), &isPresent, &list, &isDefault) ||
      !GetSecurityDescriptorControl(descriptor.get(), &control, &revision)) {
    return GetLastError();
  }
  const SECURITY_INFORMATION inheritance = (control & SE_DACL_PROTECTED) != 0
                                               ? PROTECTED_DACL_SECURITY_INFORMATION
                                               : UNPROTECTED_DACL_SECURITY_INFORMATION;
  return SetSecurityInfo(file.get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION | inheritance,
                         nullptr, nullptr, list, nullptr);
}

/// The folder with its rights, before anything is written into it. What of its path is missing is
/// made with the same rights; folders above it that were there keep theirs.
void makeFolder(const std::wstring& path, const std::wstring& administrator) {
  const win::LocalMemory descriptor = descriptorOf(kRights);
  SECURITY_ATTRIBUTES security = {sizeof security, descriptor.get(), FALSE};
  for (const std::wstring& folder : foldersTo(path)) {
    if (CreateDirectoryW(folder.c_str(), &security)) {
      continue;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
      throw Refusal{6, folder + L" cannot be made (" + errorText(GetLastError()) + L")."};
    }
    requireTrusted(folder, administrator);
  }
  const DWORD error = setRights(path, kRights);
  if (error != ERROR_SUCCESS) {
    throw Refusal{6, L"The rights of " + path + L" cannot be set (" + errorText(error) + L")."};
  }
}

/// Throws unless makeFolder may make or take over the folders. Returns what takes that back: those
/// to be removed, the deepest first; and of those that are there, the rights.
Fields examineFolders(const Fields& paths, const std::wstring& administrator) {
  Fields undo;
  for (const std::wstring& path : paths) {
    for (const std::wstring& folder : foldersTo(path)) {
      if (exists(folder)) {
        requireTrusted(folder, administrator);
      } else if (std::find(undo.begin(), undo.end(), folder) == undo.end()) {
        undo.insert(undo.begin(), folder);
      }
    }
    if (exists(path)) {
      undo.insert(undo.begin(), path + L">" + rightsOf(path));
    }
  }
  return undo;
}

// What a removal leaves: edited or made by an administrator, or written by the service.
constexpr std::array kLeftOver = {L".", L"..", L"Log", L"zontrace.cfg", L"expected.json"};

/// Throws if the folder holds more than an earlier removal has left: its rights would change.
void requireOurs(const std::wstring& folder) {
  WIN32_FIND_DATAW found = {};
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  std::wstring other;
  do {
    const std::wstring name = found.cFileName;
    const bool isLeft = std::any_of(kLeftOver.begin(), kLeftOver.end(),
                                    [&](const wchar_t* left) { return sameText(name, left); });
    if (!isLeft) {
      other = name;
    }
  } while (other.empty() && FindNextFileW(search, &found));
  FindClose(search);
  if (!other.empty()) {
    throw Refusal{4, folder + L" holds something else: " + other + L". Choose another folder."};
  }
}

// ------------------------------------------------------------------------------------- the service

struct ServiceState {
  bool isInstalled = false;
  bool isRunning = false;
  std::wstring path; ///< as it is registered
};

win::ServiceHandle openService(DWORD rights) {
  const win::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  return win::ServiceHandle(manager ? OpenServiceW(manager.get(), kService, rights) : nullptr);
}

SERVICE_STATUS_PROCESS statusOf(const win::ServiceHandle& service) {
  SERVICE_STATUS_PROCESS status = {};
  DWORD needed = 0;
  QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                       sizeof status, &needed);
  return status;
}

ServiceState serviceState() {
  ServiceState state;
  const win::ServiceHandle service = openService(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
  if (!service) {
    return state;
  }
  state.isInstalled = true;
  state.isRunning = statusOf(service).dwCurrentState != SERVICE_STOPPED;
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8192> bytes{}; // as large as it can become
  DWORD needed = 0;
  if (QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(bytes.data()),
                          bytes.size(), &needed)) {
    state.path = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(bytes.data())->lpBinaryPathName;
  }
  return state;
}

/// The registered program, with backslashes and without quotes, begins with `program`.
bool runs(const ServiceState& state, const std::wstring& program) {
  std::wstring path = state.path;
  path.erase(std::remove(path.begin(), path.end(), L'"'), path.end());
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return sameText(path.substr(0, program.size()), program);
}

/// Returns when the service's process has ended, and no other holds the program: then it can be
/// replaced.
void stopService(const std::wstring& program) {
  const win::ServiceHandle service =
      openService(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG | SERVICE_STOP);
  if (service) {
    const win::Handle process(OpenProcess(SYNCHRONIZE, FALSE, statusOf(service).dwProcessId));
    SERVICE_STATUS status = {};
    ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    for (DWORD waited = 0; statusOf(service).dwCurrentState != SERVICE_STOPPED && waited < kTimeout;
         waited += kPollInterval) {
      Sleep(kPollInterval);
    }
    if (process) {
      WaitForSingleObject(process.get(), kTimeout); // it says that it has stopped before it ends
    }
  }
  for (DWORD waited = 0; exists(program); waited += kPollInterval) {
    const HANDLE file = CreateFileW(program.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
      CloseHandle(file);
      return;
    }
    if (waited >= kTimeout) {
      throw Refusal{7, program + L" is in use (" + errorText(GetLastError()) +
                           L"). End the program that uses it."};
    }
    Sleep(kPollInterval);
  }
}

/// Runs a command to its end; what it says goes into the log. Returns its exit code.
DWORD runTool(const Session& session, std::wstring line, std::wstring* said = nullptr) {
  session.log(L"> " + line);
  SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
  win::Handle ours;
  win::Handle theirs;
  CreatePipe(ours.put(), theirs.put(), &inheritable, 0);
  SetHandleInformation(ours.get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW start = {};
  start.cb = sizeof start;
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = theirs.get();
  start.hStdError = theirs.get();
  PROCESS_INFORMATION information = {};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                      nullptr, &start, &information)) {
    const DWORD error = GetLastError();
    session.log(L"not started: " + errorText(error));
    return error;
  }
  const win::Handle process(information.hProcess);
  const win::Handle thread(information.hThread);
  theirs.reset();
  std::string output;
  std::array<char, 4096> piece{};
  DWORD count = 0;
  while (ReadFile(ours.get(), piece.data(), piece.size(), &count, nullptr) && count > 0) {
    output.append(piece.data(), count);
  }
  WaitForSingleObject(process.get(), INFINITE);
  DWORD code = 0;
  GetExitCodeProcess(process.get(), &code);
  std::wstring text(output.size(), L'\0');
  text.resize(static_cast<std::size_t>(
      MultiByteToWideChar(CP_UTF8, 0, output.data(), static_cast<int>(output.size()), text.data(),
                          static_cast<int>(text.size()))));
  session.log(text);
  session.log(L"exit code " + std::to_wstring(code));
  if (said != nullptr) {
    *said = text;
  }
  return code;
}

std::wstring quillmonctl(const std::wstring& folder, const std::wstring& arguments) {
  return L"\"" + folder + L"quillmonctl.exe\" " + arguments;
}

// ------------------------------------------------------------------------------- edited defaults

std::optional<std::string> contentOf(const std::wstring& path) {
  const HANDLE handle =
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  const win::Handle file(handle);
  std::string content;
  std::array<char, 4096> piece{};
  DWORD count = 0;
  while (ReadFile(file.get(), piece.data(), piece.size(), &count, nullptr) && count > 0) {
    content.append(piece.data(), count);
  }
  return content;
}

bool isUnedited(const std::wstring& path, const std::wstring& standardPath) {
  const std::optional<std::string> standard = contentOf(standardPath);
  return standard && contentOf(path) == standard;
}

/// Of the pairs of a default and its place, the places where the new version's will be put.
Fields newDefaults(const Fields& defaults) {
  Fields places;
  for (std::size_t i = 0; i + 1 < defaults.size(); i += 2) {
    if (!exists(defaults[i + 1]) || isUnedited(defaults[i + 1], defaults[i])) {
      places.push_back(defaults[i + 1]);
    }
  }
  return places;
}

} // namespace

#define ACTION extern "C" __declspec(dllexport) UINT __stdcall

/// Refuses what would go wrong, and sets the data of all other actions.
ACTION Examine(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const std::wstring folder = session.property(L"INSTALLDIR"); // ends with a backslash
    const std::wstring bareFolder = withoutSlash(folder);
    const std::wstring program = folder + kProgram;
    const std::wstring installedIn = session.property(L"INSTALLEDIN");
    const std::wstring configuration = withoutSlash(session.property(L"CONFIGDIR"));
    const std::wstring traceFolder = session.property(L"TRACEDIR");
    const std::wstring administrator = installingAdministrator();
    const ServiceState service = serviceState();
    Fields defaults = {folder + L"config\\quillmon.properties",
                       configuration + L"\\quillmon.properties"};
    if (traceFolder.empty() || sameText(traceFolder, folder)) {
      defaults.insert(defaults.end(), {folder + L"config\\zontrace.cfg", folder + L"zontrace.cfg"});
    }

    Fields files = {folder + L"Log"};
    for (std::size_t i = 1; i < defaults.size(); i += 2) {
      files.push_back(defaults[i]);
    }

    Fields undo;
    if (session.property(L"REMOVE") != L"ALL") {
      if (!installedIn.empty() && !sameText(installedIn, folder)) {
        throw Refusal{2, L"Quillmon is installed in " + installedIn +
                             L". Upgrade it there, or remove it first."};
      }
      if (service.isInstalled && !runs(service, program)) {
        throw Refusal{3, L"The service " + std::wstring(kService) + L" is already there, as " +
                             service.path + L". Remove it first."};
      }
      if (installedIn.empty()) {
        requireOurs(bareFolder);
      }
      undo = examineFolders({bareFolder, configuration}, administrator);
      requireTrustedIfThere(files, administrator);
    }

    std::wstring strategy = session.property(L"STRATEGY");
    if (strategy.empty()) {
      strategy = service.path.ends_with(L" -o") ? L"proxy" : L"adapter";
    }
    const std::wstring chosen = L" --strategy " + strategy +
                                (session.property(L"EVENTLOG") == L"1" ? L" --event-log" : L"");
    const std::wstring state = service.isRunning ? L"" : L" --keep-stopped";
    session.setProperty(L"StopService", program);
    session.setProperty(L"StartAgain", service.isInstalled
                                           ? join({quillmonctl(folder, L"repair" + state),
                                                   service.isRunning ? L"running" : L"stopped"})
                                           : L"");
    for (const wchar_t* action : {L"TakeDefaults", L"TakeDefaultsBack", L"PutDefaults"}) {
      session.setProperty(action, join(defaults));
    }
    session.setProperty(L"PutDefaultsBack", join(newDefaults(defaults)));
    session.setProperty(L"MakeFolders", join({administrator, bareFolder, configuration}) +
                                            kSeparator + join(files));
    session.setProperty(L"MakeFoldersBack", join(undo));
    session.setProperty(L"Register",
                        quillmonctl(folder, service.isInstalled ? L"repair" + chosen + state
                                                                : L"install" + chosen));
    session.setProperty(L"RegisterBack",
                        service.isInstalled ? L"" : quillmonctl(folder, L"uninstall"));
    session.setProperty(L"Unregister", quillmonctl(folder, L"uninstall"));
    session.setProperty(L"UnregisterBack",
                        service.isInstalled ? quillmonctl(folder, L"install" + chosen) : L"");
  });
}

ACTION StopService(MSIHANDLE install) {
  return run(install, [](const Session& session) { stopService(session.data()[0]); });
}

/// Takes StopService back, when the files are the previous version's again.
ACTION StartAgain(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const Fields data = session.data();
    if (data.size() != 2) {
      return; // there was no service
    }
    if (runTool(session, data[0]) != 0 && data[1] == L"running") {
      const win::ServiceHandle service = openService(SERVICE_START);
      StartServiceW(service.get(), 0, nullptr); // what worked before is worth a try
    }
  });
}

ACTION MakeFolders(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const Fields data = session.data();
    for (std::size_t i = 1; i < 3; ++i) {
      makeFolder(data.at(i), data[0]);
    }
    // Nobody else can put them there from now on.
    requireTrustedIfThere({data.begin() + 3, data.end()}, data[0]);
  });
}

/// A folder that was made goes if it is empty; one that was there gets its rights back.
ACTION UnmakeFolders(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    for (const std::wstring& entry : session.data()) {
      const std::size_t end = entry.find(L'>');
      if (end == std::wstring::npos) {
        RemoveDirectoryW(entry.c_str());
      } else {
        setRights(entry.substr(0, end), entry.substr(end + 1));
      }
    }
  });
}

/// Removes each file that is as its default is: nobody edited it.
ACTION TakeDefaults(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const Fields data = session.data();
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
      if (isUnedited(data[i + 1], data[i])) {
        DeleteFileW(data[i + 1].c_str());
      }
    }
  });
}

/// Puts each default where the file is missing.
ACTION PutDefaults(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const Fields data = session.data();
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
      if (!CopyFileW(data[i].c_str(), data[i + 1].c_str(), TRUE) &&
          GetLastError() != ERROR_FILE_EXISTS && exists(data[i])) {
        throw Refusal{6, data[i + 1] + L" cannot be written (" + errorText(GetLastError()) + L")."};
      }
    }
  });
}

ACTION PutDefaultsBack(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    for (const std::wstring& path : session.data()) {
      DeleteFileW(path.c_str());
    }
  });
}

/// Runs quillmonctl, which says what it did and takes back what it could not finish.
ACTION RunTool(MSIHANDLE install) {
  return run(install, [](const Session& session) {
    const std::wstring line = session.property(L"CustomActionData");
    std::wstring said;
    if (!line.empty() && runTool(session, line, &said) != 0) {
      throw Refusal{8,
                    L"The service or the WMI classes could not be registered or removed. " + said};
    }
  });
}
