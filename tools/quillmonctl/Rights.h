#pragma once

#include "quillmonctl/Failure.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/// Who may change a file or a folder, as its security descriptor says.
struct PathRights {
  struct Entry { ///< of the access list, in its order
    bool allows = true;
    bool isInherited = false;
    bool isForChildrenOnly = false;
    std::uint32_t rights = 0;
    std::string sid;  ///< "S-1-5-11"
    std::string name; ///< as the system shows it; may be empty
  };

  std::string path;
  bool isOurs = false; ///< program, log, configuration and their folders; else a folder above them
  bool isFolder = true;
  bool exists = true;
  bool leadsElsewhere = false;      ///< a junction or a symbolic link
  std::optional<SystemError> error; ///< it could not be read
  std::string ownerSid;
  std::string ownerName;
  bool hasAccessList = true; ///< without one everybody may do everything
  std::vector<Entry> entries;
};

/// The files with all folders above them, each once, the upper ones first; only `path`, `isOurs`
/// and `isFolder` are filled in.
std::vector<PathRights> pathsAround(const std::vector<std::string>& files);

struct RightsProblem {
  bool isGrave = true;
  std::string finding;
  std::string advice; ///< the command that mends it
};

/// What is wrong with paths in the order of pathsAround: whoever is neither the system nor an
/// administrator owns one of them, may change ours, or may replace or make what leads to them.
/// `administrators` are accounts that are known to be some.
std::vector<RightsProblem> problemsOf(const std::vector<PathRights>& paths,
                                      const std::vector<std::string>& administrators);

} // namespace ctl
