#pragma once

#include <string>
#include <string_view>

/// The release and level that an expanded version-control ident carries.
struct VersionLevel {
  bool found = false;
  std::string release;
  std::string level;
};

/// Searches `ident` for the component word; text that is missing behind it reads as empty.
VersionLevel parseVersionIdent(std::string_view ident);

/// Prints the banner and the level of this build's ident.
void printVersion();
