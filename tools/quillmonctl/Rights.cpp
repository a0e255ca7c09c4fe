#include "quillmonctl/Rights.h"

#include "quillmonctl/IgnoreCase.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace ctl {
namespace {

// Access rights of files and folders, as Windows numbers them.
constexpr std::uint32_t kWriteDataOrAddFile = 0x2;
constexpr std::uint32_t kAppendDataOrAddFolder = 0x4;
constexpr std::uint32_t kWriteExtendedAttributes = 0x10;
constexpr std::uint32_t kDeleteChild = 0x40;
constexpr std::uint32_t kWriteAttributes = 0x100;
constexpr std::uint32_t kDelete = 0x10000;
constexpr std::uint32_t kWriteRights = 0x40000;
constexpr std::uint32_t kWriteOwner = 0x80000;
constexpr std::uint32_t kGenericAll = 0x10000000;
constexpr std::uint32_t kGenericWrite = 0x40000000;

constexpr std::uint32_t kReplaces =
    kDeleteChild | kDelete | kWriteRights | kWriteOwner | kGenericAll;
constexpr std::uint32_t kMakes =
    kWriteDataOrAddFile | kAppendDataOrAddFolder | kGenericWrite | kGenericAll;
constexpr std::uint32_t kChanges = kReplaces | kMakes | kWriteExtendedAttributes | kWriteAttributes;

constexpr std::string_view kEverybody = "S-1-1-0";

/// Who may change everything anyway, by the numbers that are the same on each Windows.
bool isTrusted(std::string_view sid) {
  constexpr auto kTrusted = std::to_array<std::string_view>({
      "S-1-5-18",                                                       // the system
      "S-1-5-32-544",                                                   // administrators
      "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464", // Windows' own installer
      "S-1-3-0", // whoever makes something below: whoever may, is named besides
      "S-1-3-4", // the owner, who is judged as such
  });
  // Of a machine or a domain: the administrator; the domain's and the forest's administrators.
  constexpr auto kTrustedThere = std::to_array<std::string_view>({"-500", "-512", "-519"});
  return std::find(kTrusted.begin(), kTrusted.end(), sid) != kTrusted.end() ||
         (sid.starts_with("S-1-5-21-") &&
          std::any_of(kTrustedThere.begin(), kTrustedThere.end(),
                      [&](std::string_view end) { return sid.ends_with(end); }));
}

std::string_view folderOf(std::string_view path) {
  const std::size_t end = path.rfind('\\');
  return end == 2 ? path.substr(0, 3) : path.substr(0, end); // "C:\" keeps its backslash
}

bool isRoot(std::string_view path) {
  return path.size() <= 3;
}

struct Offender {
  std::string sid;
  std::string name;
  bool isInherited;
};

/// Those who are not trusted and have one of the rights. A refusal counts against what is granted
/// after it to the same account.
std::vector<Offender> offenders(const PathRights& path, std::uint32_t rights,
                                const std::vector<std::string>& administrators) {
  std::vector<Offender> found;
  std::map<std::string, std::uint32_t, std::less<>> denied;
  for (const PathRights::Entry& entry : path.entries) {
    if (entry.isForChildrenOnly || isTrusted(entry.sid) ||
        std::find(administrators.begin(), administrators.end(), entry.sid) !=
            administrators.end()) {
      continue;
    }
    if (!entry.allows) {
      denied[entry.sid] |= entry.rights;
      continue;
    }
    const auto refused = [&](std::string_view sid) {
      const auto each = denied.find(sid);
      return each == denied.end() ? 0U : each->second;
    };
    if ((entry.rights & rights & ~(refused(entry.sid) | refused(kEverybody))) != 0) {
      found.push_back({entry.sid, entry.name.empty() ? entry.sid : entry.name, entry.isInherited});
    }
  }
  return found;
}

/// Leaves these accounts the right to read, and everybody else what they have.
std::string commandToTakeAway(const PathRights& path, const std::vector<Offender>& from) {
  std::string grants;
  for (const Offender& each : from) {
    const std::string grant =
        fmt::format(" \"*{}:{}RX\"", each.sid, path.isFolder ? "(OI)(CI)" : "");
    if (grants.find(grant) == std::string::npos) {
      grants += grant;
    }
  }
  const bool inherits =
      std::any_of(from.begin(), from.end(), [](const Offender& each) { return each.isInherited; });
  return fmt::format("{}icacls \"{}\" /grant:r{}",
                     inherits ? fmt::format("icacls \"{}\" /inheritance:d, then ", path.path) : "",
                     path.path, grants);
}

std::string namesOf(const std::vector<Offender>& all) {
  std::vector<std::string> names;
  for (const Offender& each : all) {
    if (std::find(names.begin(), names.end(), each.name) == names.end()) {
      names.push_back(each.name);
    }
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

/// Who makes a folder that is missing, owns it.
void judgeMissing(const PathRights& path, const std::vector<PathRights>& paths,
                  const std::vector<std::string>& administrators,
                  std::vector<RightsProblem>& problems) {
  const auto above = std::find_if(paths.begin(), paths.end(), [&](const PathRights& each) {
    return equalsIgnoreCase(each.path, folderOf(path.path));
  });
  if (above == paths.end() || !above->exists || above->isOurs) { // ours is judged as a whole
    return;
  }
  if (const std::vector<Offender> found = offenders(*above, kMakes, administrators);
      !found.empty()) {
    problems.push_back({true,
                        fmt::format("{} is missing, and {} may make it", path.path, namesOf(found)),
                        fmt::format("mkdir \"{0}\", then icacls \"{0}\" /inheritance:r /grant:r "
                                    "\"*S-1-5-18:(OI)(CI)F\" \"*S-1-5-32-544:(OI)(CI)F\" "
                                    "\"*S-1-5-32-545:(OI)(CI)RX\"",
                                    path.path)});
  }
}

} // namespace

std::vector<PathRights> pathsAround(const std::vector<std::string>& files) {
  std::vector<PathRights> paths;
  const auto add = [&](std::string_view path, bool isOurs, bool isFolder) {
    const auto known = std::find_if(paths.begin(), paths.end(), [&](const PathRights& each) {
      return equalsIgnoreCase(each.path, path);
    });
    PathRights& entry = known != paths.end() ? *known : paths.emplace_back();
    if (entry.path.empty()) {
      entry.path = path;
    }
    entry.isOurs |= isOurs;
    entry.isFolder = isFolder;
  };
  for (const std::string& file : files) {
    const std::string_view folder = folderOf(file);
    const bool hasDrive =
        folder.size() > 2 && folder[1] == ':'; // of another machine's nothing is known
    for (std::size_t end = 2; hasDrive && end < folder.size(); end = folder.find('\\', end + 1)) {
      add(folder.substr(0, std::max<std::size_t>(end, 3)), false, true);
    }
    add(folder, true, true);
    add(file, true, false);
  }
  return paths;
}

std::vector<RightsProblem> problemsOf(const std::vector<PathRights>& paths,
                                      const std::vector<std::string>& administrators) {
  std::vector<RightsProblem> problems;
  std::set<std::pair<std::string, std::string>> reported; // path and account
  for (const PathRights& path : paths) {
    const std::string above(folderOf(path.path));
    if (!path.exists) {
      judgeMissing(path, paths, administrators, problems);
      continue;
    }
    if (path.error) {
      problems.push_back({false,
                          fmt::format("{} cannot be judged: {}", path.path, describe(*path.error)),
                          "Run quillmonctl doctor as administrator."});
      continue;
    }
    if (path.leadsElsewhere) {
      problems.push_back(
          {false, fmt::format("{} leads elsewhere; what lies above there is not judged", path.path),
           fmt::format(
               "fsutil reparsepoint query \"{0}\" shows where; {1} \"{0}\" removes the link "
               "alone.",
               path.path, path.isFolder ? "rmdir" : "del")});
    }
    if (!isTrusted(path.ownerSid) && std::find(administrators.begin(), administrators.end(),
                                               path.ownerSid) == administrators.end()) {
      problems.push_back({true,
                          fmt::format("{} belongs to {}", path.path,
                                      path.ownerName.empty() ? path.ownerSid : path.ownerName),
                          fmt::format("takeown /f \"{}\" /a", path.path)});
    }
    if (!path.hasAccessList) {
      problems.push_back({true, fmt::format("everybody may change {}", path.path),
                          fmt::format("icacls \"{}\" /reset", path.path)});
      continue;
    }
    // On other drives than the system's everybody has the right to delete the root, which nobody
    // can.
    const std::uint32_t rights =
        (path.isOurs ? kChanges : kReplaces) & ~(isRoot(path.path) ? kDelete : 0U);
    std::vector<Offender> found = offenders(path, rights, administrators);
    for (const Offender& each : found) {
      reported.emplace(path.path, each.sid);
    }
    // What comes from above goes away with it.
    std::erase_if(found, [&](const Offender& each) {
      return each.isInherited && reported.count({above, each.sid}) > 0;
    });
    if (!found.empty()) {
      problems.push_back({true,
                          fmt::format("{} may {} {}", namesOf(found),
                                      path.isOurs ? "change" : "replace what is in", path.path),
                          commandToTakeAway(path, found)});
    }
  }
  return problems;
}

} // namespace ctl
