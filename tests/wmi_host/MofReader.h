#pragma once

#include "Cim.h"

#include <filesystem>
#include <string>
#include <string_view>

/// Reads MOF into a repository: the part of the language that our MOF files use. Everything else is
/// an error. The shipped files are proved by Windows' own compiler; this reader checks only what it
/// needs to store them.
namespace wmi_host {

/// Applies statement by statement, as the MOF compiler does: what stood before an error is kept.
/// Throws std::runtime_error with "file:line: reason".
void readMof(Repository& repository, std::string_view text, const std::string& fileName);
/// The same with the text of a file; `fileName` is how messages call it.
void readMofFile(Repository& repository, const std::filesystem::path& file,
                 const std::string& fileName);

/// A repository with the system classes that every namespace has.
Repository systemRepository();

} // namespace wmi_host
