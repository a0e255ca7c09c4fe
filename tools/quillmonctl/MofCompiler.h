#pragma once

#include <string>

namespace ctl {

/// The product's MOF files, beside this program or where `folder` says: of its WMI classes, and of
/// the subscription that writes device events into the Application log.
struct MofFiles {
  std::string install;
  std::string uninstall;
  std::string eventLog;
  std::string noEventLog;

  static MofFiles in(const std::string& folder);
  /// Throws Failure if one of the first two is missing.
  void requireClasses() const;
};

/// Has Windows' own compiler read the file, then looks for itself: throws Failure unless all
/// classes and registrations are there (`wanted`) or none is. What the compiler said is in the
/// message. Needs COM.
void compileMof(const std::string& file, bool wanted);

/// Removes the classes and registrations; and the file that made them from the list of those that
/// WMI compiles again when it rebuilds its store.
void removeClasses(const MofFiles& files);

/// Throws Failure if a class of that name is there, but not the product's provider: the compiler
/// would change somebody else's class.
void requireNoForeignClass();

/// Compiles the one or the other file of the subscription, and looks for itself.
void compileEventLog(const MofFiles& files, bool wanted);
bool hasEventLog();

/// How many of the product's classes and registrations WMI has now.
struct RegistrationState {
  std::size_t present = 0;
  std::size_t missing = 0;
  std::string firstMissing;
};
RegistrationState registrationState();

} // namespace ctl
