#pragma once

#include "Cim.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Object paths and the part of WQL that the stand-in answers. Plain values; parsing gives nothing
/// for what is not understood.
namespace wmi_host {

/// `[\\server\namespace:]Class[.key=value[,key=value...]]` or `Class=value`.
struct ObjectPath {
  std::wstring nameSpace; // as written, without server; empty if the path has none
  std::wstring className;
  std::vector<std::pair<std::wstring, Scalar>> keys; // the name may be empty: the one key

  bool isClass() const { return keys.empty(); }
  std::wstring relative() const;
  /// Whether the instance has exactly these keys.
  bool names(const Object& instance) const;
};
std::optional<ObjectPath> parsePath(std::wstring_view text);
/// root\cimv2, in any spelling that names it on this machine; empty counts too.
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

  /// False if the class lacks a property named in the query or a value is of another kind.
  bool fits(const Class& type) const;
  /// Text is compared without regard to case.
  bool matches(const Object& object) const;
  /// Only the selected properties, as an object of its class.
  Object project(const Object& object) const;
};
std::optional<Query> parseQuery(std::wstring_view text);

} // namespace wmi_host
