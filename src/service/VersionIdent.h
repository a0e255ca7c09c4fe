#pragma once

#include <string>
#include <string_view>

namespace service {

/// The release and level of an expanded version-control ident.
struct VersionLevel {
  bool found = false;
  std::string release;
  std::string level;
};

/// Parses the text after the component word in `ident`; missing text reads as empty.
VersionLevel parseVersionIdent(std::string_view ident);

/// Prints the banner and the version of this build.
void printVersion();

} // namespace service
