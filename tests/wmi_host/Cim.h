#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// The object model of WMI without Windows: values, classes, instances and their repository. Shared
/// values are immutable. One thread fills a Repository; afterwards it is read-only.
namespace wmi_host {

/// WMI's CIMTYPE numbers. Left out are those of no class here: reals, char16 and objects.
enum class CimType : int {
  sint16 = 2,
  sint32 = 3,
  string = 8,
  boolean = 11,
  sint8 = 16,
  uint8 = 17,
  uint16 = 18,
  uint32 = 19,
  sint64 = 20,
  uint64 = 21,
  datetime = 101,
  reference = 102,
};

std::wstring_view typeName(CimType type);
std::optional<CimType> typeFromName(std::wstring_view name);

/// Signed types hold std::int64_t, unsigned ones std::uint64_t; strings, date-times and references
/// std::wstring.
using Scalar = std::variant<bool, std::int64_t, std::uint64_t, std::wstring>;

/// A value that is no array and has no item is NULL.
struct Value {
  bool isArray = false;
  std::vector<Scalar> items;

  Value() = default;
  explicit Value(Scalar scalar) : items{std::move(scalar)} {}
  bool isNull() const { return !isArray && items.empty(); }
  bool operator==(const Value&) const = default;
};

/// `value` as this type holds it. Nothing if it is of a different kind or out of range.
std::optional<Scalar> fit(CimType type, const Scalar& value);
std::optional<Value> fit(CimType type, bool isArray, const Value& value);
/// Decimal, or hexadecimal after 0x; the whole text.
std::optional<Scalar> parseInteger(std::wstring_view text);

struct Qualifier {
  std::wstring name;
  Value value;
  bool operator==(const Qualifier&) const = default;
};

struct Property {
  std::wstring name;
  CimType type = CimType::string;
  bool isArray = false;
  std::wstring cimType; // the text of the CIMTYPE qualifier: a type name, or "ref:Class"
  std::vector<Qualifier> qualifiers;
  Value defaultValue;
  std::wstring origin; // the class that introduced it
  bool isKey() const;
  bool operator==(const Property&) const = default;
};

/// Its properties include the inherited ones, which come first.
struct Class {
  std::wstring name;
  std::shared_ptr<const Class> superclass;
  std::vector<Qualifier> qualifiers;
  std::vector<Property> properties;

  std::optional<std::size_t> find(std::wstring_view property) const;
  bool flag(std::wstring_view qualifier) const;
  /// The text of a class qualifier; empty if the class does not have it.
  std::wstring text(std::wstring_view qualifier) const;
  bool isAbstract() const { return flag(L"abstract"); }
  bool isDynamic() const { return flag(L"dynamic"); }
  /// True for the class itself, too, and for the empty name.
  bool derivesFrom(std::wstring_view ancestor) const;
};
using ClassPointer = std::shared_ptr<const Class>;

/// A class as an object (its values are the defaults) or an instance.
struct Object {
  ClassPointer type;
  bool isInstance = false;
  std::vector<Value> values; // one for each of the class's properties

  static Object ofClass(ClassPointer type);
  static Object instanceOf(ClassPointer type);
  /// Null if the class does not have the property.
  const Value* find(std::wstring_view property) const;
  std::wstring text(std::wstring_view property) const;
  bool truth(std::wstring_view property) const;
  /// Nothing for an instance whose keys are not all set, or whose class has no keys.
  std::optional<std::wstring> relativePath() const;
};

/// The system properties __CLASS, __RELPATH and __PATH; nothing for other names.
std::optional<Value> systemProperty(const Object& object, std::wstring_view name);

/// Class, property and qualifier names are compared without regard to (ASCII) case.
bool sameName(std::wstring_view one, std::wstring_view other);
std::wstring lower(std::wstring_view text);
/// For messages: every other character becomes a question mark.
std::string ascii(std::wstring_view text);
const Qualifier* findQualifier(const std::vector<Qualifier>& qualifiers, std::wstring_view name);
/// The notation of object paths and MOF: a text in double quotes, with `\` before `"` and `\`.
std::wstring literal(const Scalar& value);

struct ObjectPath;

/// The classes and static instances of root\cimv2.
class Repository {
public:
  ClassPointer findClass(std::wstring_view name) const;
  /// The classes that derive from `name`, sorted by name.
  std::vector<ClassPointer> derivedFrom(std::wstring_view name) const;
  const std::vector<Object>& instances() const { return instances_; }
  const Object* findInstance(const ObjectPath& path) const;

  /// Throw std::runtime_error with the reason. A class can be replaced. One with derived classes
  /// only by an equal one; with a safe update also by one that adds to it, which they inherit.
  enum class Update { Compatible, Safe };
  void putClass(Class type, Update update = Update::Compatible);
  void putInstance(Object instance);
  /// Do nothing if there is none. With a class its derived classes and instances are removed.
  void removeClass(std::wstring_view name);
  void removeInstance(const ObjectPath& path);

private:
  void inheritAgain(const ClassPointer& derived);

  std::map<std::wstring, ClassPointer> classes_; // by lower-case name
  std::vector<Object> instances_;
};

} // namespace wmi_host
