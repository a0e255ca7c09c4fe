#pragma once

#include <string>

namespace ctl {

/// The two files of the product's WMI classes, beside this program or where `folder` says.
struct MofFiles {
  std::string install;
  std::string uninstall;

  /// Throws Failure if one is missing.
  static MofFiles in(const std::string& folder);
};

/// Has Windows' own compiler read the file, then looks for itself: throws Failure unless all
/// classes and registrations are there (`wanted`) or none is. What the compiler said is in the
/// message. Needs COM.
void compileMof(const std::string& file, bool wanted);

/// How many of the product's classes and registrations WMI has now.
struct RegistrationState {
  std::size_t present = 0;
  std::size_t missing = 0;
  std::string firstMissing;
};
RegistrationState registrationState();

} // namespace ctl
