#pragma once

#include "quillmonctl/Json.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// A device as WMI lists it. Its id and its category are its identity: a device that was exchanged
/// for another under the same id is the same one.
struct KnownDevice {
  std::string id;
  std::string category;
  std::string maker;
  std::string model;
  std::string serial;

  /// Reads an instance; what it does not report is empty.
  static KnownDevice of(const Json& instance);

  bool isSameAs(const KnownDevice& other) const {
    return id == other.id && category == other.category;
  }
};

/// The devices that a till should have, as "quillmonctl expect" writes them.
struct Baseline {
  std::string computer; ///< empty: it holds for any till
  std::vector<KnownDevice> devices;

  /// Throws Failure with exit code 2, which names `file`: the text is no baseline.
  static Baseline parse(std::string_view text, const std::string& file);
  std::string toText() const;

  /// Throws Failure with exit code 2 if this is the baseline of another computer.
  void requireComputer(const std::string& name, const std::string& file) const;
};

/// Reads it from a file, for this computer; none without a file's name. Throws Failure.
std::optional<Baseline> readBaseline(const std::string& file);

/// How the devices of a till differ from those it should have.
struct Comparison {
  std::size_t expected = 0;
  std::vector<KnownDevice> missing; ///< expected, and not there
  std::vector<KnownDevice> added;   ///< there, and not expected
};
Comparison compare(const Baseline& baseline, const std::vector<KnownDevice>& present);

/// "PRINTER1 (POSPrinter), DRAWER1 (CashDrawer)", printable.
std::string namesOf(const std::vector<KnownDevice>& devices);

Json toJson(const Comparison& comparison);

} // namespace ctl
