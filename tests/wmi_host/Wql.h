#pragma once

#include "Cim.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Object paths, and the part of WQL that the stand-in supports. Parsing returns nothing for
/// everything else.
namespace wmi_host {

/// `[\\server\namespace:]Class[.key=value[,key=value...]]` or `Class=value`.
struct ObjectPath {
  std::wstring nameSpace; // as written, without server; empty if the path has none
  std::wstring className;
  std::vector<std::pair<std::wstring, Scalar>> keys; // the name may be empty: the one key

  bool isClass() const { return keys.empty(); }
  std::wstring relative() const;
  /// Whether these are the keys of the instance.
  bool names(const Object& instance) const;
};
std::optional<ObjectPath> parsePath(std::wstring_view text);
/// Whether the text is empty or a notation of root\cimv2 on this machine.
bool isServedNamespace(std::wstring_view text);

struct Condition {
  std::wstring property;
  Scalar value;
};
/// SELECT * | property [, property...] FROM class [WHERE property = value [AND ...]]
struct Query {
  std::vector<std::wstring> properties; // empty: all
  std::wstring className;
  std::vector<Condition> conditions;

  /// False if the class lacks a property of the query, or a value does not fit its type.
  bool fits(const Class& type) const;
  /// Text is compared case-insensitively.
  bool matches(const Object& object) const;
  /// The object with the selected properties only.
  Object project(const Object& object) const;
};
std::optional<Query> parseQuery(std::wstring_view text);

} // namespace wmi_host
