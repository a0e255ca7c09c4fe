// How the rights of files and folders are read; what is made of them is in Rights.cpp.

#include "quillmonctl/Rights.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "win/Handles.h"

#include <aclapi.h>
#include <sddl.h>

#include <array>

namespace ctl {
namespace {

std::string textOf(PSID sid) {
  win::LocalMemory owner;
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) {
    return {};
  }
  owner.reset(text);
  return utf8(text);
}

/// "NT AUTHORITY\Authenticated Users"; empty where the system knows no name.
std::string nameOf(PSID sid) {
  std::array<wchar_t, 256> name{};
  std::array<wchar_t, 256> domain{};
  auto nameSize = static_cast<DWORD>(name.size());
  auto domainSize = static_cast<DWORD>(domain.size());
  SID_NAME_USE use{};
  if (!LookupAccountSidW(nullptr, sid, name.data(), &nameSize, domain.data(), &domainSize, &use)) {
    return {};
  }
  return domainSize == 0 ? utf8(name.data()) : utf8(domain.data()) + "\\" + utf8(name.data());
}

/// Entries of kinds that grant or refuse something; the others only log.
std::vector<PathRights::Entry> entriesOf(ACL& list) {
  std::vector<PathRights::Entry> entries;
  for (DWORD i = 0; i < list.AceCount; ++i) {
    void* raw = nullptr;
    if (!GetAce(&list, i, &raw)) {
      continue;
    }
    const auto* const header = static_cast<const ACE_HEADER*>(raw);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE && header->AceType != ACCESS_DENIED_ACE_TYPE) {
      continue;
    }
    auto* const ace = static_cast<ACCESS_ALLOWED_ACE*>(raw); // the other is laid out as this one
    PathRights::Entry entry;
    entry.allows = header->AceType == ACCESS_ALLOWED_ACE_TYPE;
    entry.isInherited = (header->AceFlags & INHERITED_ACE) != 0;
    entry.isForChildrenOnly = (header->AceFlags & INHERIT_ONLY_ACE) != 0;
    entry.rights = ace->Mask;
    entry.sid = textOf(&ace->SidStart);
    entry.name = nameOf(&ace->SidStart);
    entries.push_back(std::move(entry));
  }
  return entries;
}

/// A junction or a link, not one of the other reparse points: those change how a file is stored.
/// Wine shows its host's links, without saying of what kind they are.
bool leadsElsewhere(const std::string& path) {
  WIN32_FIND_DATAW data = {};
  const HANDLE search = FindFirstFileW(wide(path).c_str(), &data);
  if (search == INVALID_HANDLE_VALUE) {
    return false; // a drive's root
  }
  FindClose(search);
  return (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
         (data.dwReserved0 == 0 || IsReparseTagNameSurrogate(data.dwReserved0));
}

void read(PathRights& path) {
  path.leadsElsewhere = leadsElsewhere(path.path);
  // The path's own, not those of what it leads to.
  const HANDLE raw = CreateFileW(
      wide(path.path).c_str(), READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  const win::Handle file(raw == INVALID_HANDLE_VALUE ? nullptr : raw);
  if (!file) {
    path.error = win32Error();
    return;
  }
  PSID owner = nullptr;
  ACL* list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(file.get(), SE_FILE_OBJECT,
                                      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                      &owner, nullptr, &list, nullptr, &descriptor);
  const win::LocalMemory memory(descriptor);
  if (error != ERROR_SUCCESS) {
    path.error = win32Error(error);
    return;
  }
  path.ownerSid = textOf(owner);
  path.ownerName = nameOf(owner);
  path.hasAccessList = list != nullptr;
  if (list != nullptr) {
    path.entries = entriesOf(*list);
  }
}

/// Who runs this, if with an administrator's rights: what such a one makes is often the account's
/// own and not the administrators'.
std::vector<std::string> knownAdministrators() {
  alignas(SID) std::array<BYTE, SECURITY_MAX_SID_SIZE> group{};
  auto size = static_cast<DWORD>(group.size());
  BOOL isMember = FALSE;
  if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, group.data(), &size) ||
      !CheckTokenMembership(nullptr, group.data(), &isMember) || !isMember) {
    return {};
  }
  win::Handle token;
  alignas(TOKEN_USER) std::array<BYTE, 256> user{};
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !GetTokenInformation(token.get(), TokenUser, user.data(), static_cast<DWORD>(user.size()),
                           &size)) {
    return {};
  }
  return {textOf(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid)};
}

} // namespace

Survey::Rights surveyRights(const Survey& survey) {
  const std::string log = absolutePath(survey.trace.log);
  std::vector<std::string> files = {log, absolutePath(survey.configuration.path)};
  for (const std::string& file : {survey.service.path.program, survey.trace.configurationFile}) {
    if (!file.empty()) { // not every machine has them
      files.push_back(absolutePath(file));
    }
  }
  Survey::Rights rights;
  rights.administrators = knownAdministrators();
  for (PathRights& path : pathsAround(files)) {
    path.exists = exists(path.path);
    if (path.path == log && !survey.isLogTouchable()) {
      continue;
    }
    if (path.exists) {
      read(path);
    }
    rights.paths.push_back(std::move(path));
  }
  return rights;
}

} // namespace ctl
