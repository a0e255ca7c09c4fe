#pragma once

#include "Cim.h"

#include <stdexcept>
#include <string>
#include <string_view>

/// Reads the part of MOF that a provider's registration uses into a repository: pragmas, qualifiers
/// with flavors, classes with a superclass, typed properties with defaults and arrays, instances,
/// $aliases, comments, joined strings. Everything else is an error, methods and embedded objects
/// too.
namespace wmi_host {

/// what() is "file:line: reason".
class MofError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Applies statement by statement, as the MOF compiler does: what stood before an error is kept.
void readMof(Repository& repository, std::string_view text, const std::string& fileName);

/// A repository with the system classes that every namespace has.
Repository systemRepository();

} // namespace wmi_host
