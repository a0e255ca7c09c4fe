#include "Cim.h"

#include "Wql.h"

#include <algorithm>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace wmi_host {
namespace {

struct TypeRow {
  CimType type;
  std::wstring_view name;
};
constexpr TypeRow kTypes[] = {
    {CimType::sint8, L"sint8"},   {CimType::uint8, L"uint8"},       {CimType::sint16, L"sint16"},
    {CimType::uint16, L"uint16"}, {CimType::sint32, L"sint32"},     {CimType::uint32, L"uint32"},
    {CimType::sint64, L"sint64"}, {CimType::uint64, L"uint64"},     {CimType::boolean, L"boolean"},
    {CimType::string, L"string"}, {CimType::datetime, L"datetime"}, {CimType::reference, L"ref"},
};

wchar_t lowerChar(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

/// Converts an integer that is in the range of `Number`.
template <class Number>
std::optional<Scalar> fitInteger(const Scalar& value) {
  using Held = std::conditional_t<std::is_signed_v<Number>, std::int64_t, std::uint64_t>;
  std::optional<Scalar> result;
  const auto take = [&result](auto number) {
    if (std::in_range<Number>(number)) {
      result = static_cast<Held>(number);
    }
  };
  if (const auto* number = std::get_if<std::int64_t>(&value)) {
    take(*number);
  } else if (const auto* positive = std::get_if<std::uint64_t>(&value)) {
    take(*positive);
  }
  return result;
}

/// yyyymmddHHMMSS.mmmmmmsUUU, or an interval with ':' for the sign. A star replaces an unused
/// digit.
bool isDateTime(std::wstring_view text) {
  if (text.size() != 25 || text[14] != L'.') {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    wchar_t c = text[i];
    if (i == 21 && c != L'+' && c != L'-' && c != L':') {
      return false;
    }
    if (i != 14 && i != 21 && c != L'*' && (c < L'0' || c > L'9')) {
      return false;
    }
  }
  return true;
}

} // namespace

std::wstring_view typeName(CimType type) {
  for (const TypeRow& row : kTypes) {
    if (row.type == type) {
      return row.name;
    }
  }
  return L"";
}

std::optional<CimType> typeFromName(std::wstring_view name) {
  for (const TypeRow& row : kTypes) {
    if (sameName(row.name, name) && row.type != CimType::reference) {
      return row.type;
    }
  }
  return std::nullopt;
}

std::optional<Scalar> fit(CimType type, const Scalar& value) {
  switch (type) {
  case CimType::sint8:
    return fitInteger<std::int8_t>(value);
  case CimType::sint16:
    return fitInteger<std::int16_t>(value);
  case CimType::sint32:
    return fitInteger<std::int32_t>(value);
  case CimType::sint64:
    return fitInteger<std::int64_t>(value);
  case CimType::uint8:
    return fitInteger<std::uint8_t>(value);
  case CimType::uint16:
    return fitInteger<std::uint16_t>(value);
  case CimType::uint32:
    return fitInteger<std::uint32_t>(value);
  case CimType::uint64:
    return fitInteger<std::uint64_t>(value);
  case CimType::boolean:
    return std::holds_alternative<bool>(value) ? std::optional(value) : std::nullopt;
  case CimType::datetime: {
    const auto* text = std::get_if<std::wstring>(&value);
    return text != nullptr && isDateTime(*text) ? std::optional(value) : std::nullopt;
  }
  case CimType::string:
  case CimType::reference:
    return std::holds_alternative<std::wstring>(value) ? std::optional(value) : std::nullopt;
  }
  return std::nullopt;
}

std::optional<Value> fit(CimType type, bool isArray, const Value& value) {
  if (value.isNull()) {
    return value;
  }
  if (value.isArray != isArray) {
    return std::nullopt;
  }
  Value result;
  result.isArray = isArray;
  for (const Scalar& item : value.items) {
    std::optional<Scalar> fitted = fit(type, item);
    if (!fitted) {
      return std::nullopt;
    }
    result.items.push_back(std::move(*fitted));
  }
  return result;
}

std::optional<Scalar> parseInteger(std::wstring_view text) {
  const bool negative = text.starts_with(L'-');
  if (negative) {
    text.remove_prefix(1);
  }
  unsigned base = 10;
  if (text.size() > 2 && text[0] == L'0' && lowerChar(text[1]) == L'x') {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) {
    return std::nullopt;
  }
  std::uint64_t number = 0;
  for (wchar_t raw : text) {
    wchar_t c = lowerChar(raw);
    unsigned digit = 99;
    if (c >= L'0' && c <= L'9') {
      digit = static_cast<unsigned>(c - L'0');
    } else if (c >= L'a' && c <= L'f') {
      digit = static_cast<unsigned>(c - L'a') + 10;
    }
    if (digit >= base || number > (UINT64_MAX - digit) / base) {
      return std::nullopt;
    }
    number = number * base + digit;
  }
  if (!negative) {
    return number;
  }
  if (number > static_cast<std::uint64_t>(INT64_MAX) + 1) {
    return std::nullopt;
  }
  return static_cast<std::int64_t>(0 - number);
}

bool Property::isKey() const {
  return findQualifier(qualifiers, L"key") != nullptr;
}

std::optional<std::size_t> Class::find(std::wstring_view property) const {
  for (std::size_t i = 0; i < properties.size(); ++i) {
    if (sameName(properties[i].name, property)) {
      return i;
    }
  }
  return std::nullopt;
}

bool Class::flag(std::wstring_view qualifier) const {
  const Qualifier* found = findQualifier(qualifiers, qualifier);
  return found != nullptr && found->value == Value(true);
}

std::wstring Class::text(std::wstring_view qualifier) const {
  const Qualifier* found = findQualifier(qualifiers, qualifier);
  if (found == nullptr || found->value.items.empty()) {
    return {};
  }
  const auto* text = std::get_if<std::wstring>(&found->value.items.front());
  return text != nullptr ? *text : std::wstring();
}

bool Class::derivesFrom(std::wstring_view ancestor) const {
  return ancestor.empty() || sameName(name, ancestor) ||
         (superclass && superclass->derivesFrom(ancestor));
}

Object Object::ofClass(ClassPointer type) {
  Object object{std::move(type), false, {}};
  for (const Property& property : object.type->properties) {
    object.values.push_back(property.defaultValue);
  }
  return object;
}

Object Object::instanceOf(ClassPointer type) {
  Object object = ofClass(std::move(type));
  object.isInstance = true;
  return object;
}

const Value* Object::find(std::wstring_view property) const {
  std::optional<std::size_t> index = type->find(property);
  return index ? &values[*index] : nullptr;
}

std::wstring Object::text(std::wstring_view property) const {
  const Value* value = find(property);
  if (value == nullptr || value->items.empty()) {
    return {};
  }
  const auto* text = std::get_if<std::wstring>(&value->items.front());
  return text != nullptr ? *text : std::wstring();
}

bool Object::truth(std::wstring_view property) const {
  const Value* value = find(property);
  return value != nullptr && *value == Value(true);
}

std::optional<std::wstring> Object::relativePath() const {
  if (!isInstance) {
    return type->name;
  }
  std::wstring path = type->name;
  wchar_t separator = L'.';
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Property& property = type->properties[i];
    if (!property.isKey()) {
      continue;
    }
    if (values[i].isNull()) {
      return std::nullopt;
    }
    path += separator + property.name + L"=" + literal(values[i].items.front());
    separator = L',';
  }
  return separator == L',' ? std::optional(path) : std::nullopt;
}

std::optional<Value> systemProperty(const Object& object, std::wstring_view name) {
  if (sameName(name, L"__CLASS")) {
    return Value(object.type->name);
  }
  const bool isWholePath = sameName(name, L"__PATH");
  if (!isWholePath && !sameName(name, L"__RELPATH")) {
    return std::nullopt;
  }
  const std::optional<std::wstring> path = object.relativePath();
  if (!path) {
    return Value();
  }
  return Value(isWholePath ? L"\\\\.\\root\\cimv2:" + *path : *path);
}

bool sameName(std::wstring_view one, std::wstring_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](wchar_t a, wchar_t b) { return lowerChar(a) == lowerChar(b); });
}

std::wstring lower(std::wstring_view text) {
  std::wstring result(text);
  std::transform(result.begin(), result.end(), result.begin(), lowerChar);
  return result;
}

std::string ascii(std::wstring_view text) {
  std::string result;
  for (wchar_t c : text) {
    result += c < 0x80 ? static_cast<char>(c) : '?';
  }
  return result;
}

const Qualifier* findQualifier(const std::vector<Qualifier>& qualifiers, std::wstring_view name) {
  for (const Qualifier& qualifier : qualifiers) {
    if (sameName(qualifier.name, name)) {
      return &qualifier;
    }
  }
  return nullptr;
}

std::wstring literal(const Scalar& value) {
  return std::visit(
      [](const auto& held) -> std::wstring {
        using Held = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Held, std::wstring>) {
          std::wstring text = L"\"";
          for (wchar_t c : held) {
            text += c == L'"' || c == L'\\' ? std::wstring{L'\\', c} : std::wstring(1, c);
          }
          return text + L"\"";
        } else if constexpr (std::is_same_v<Held, bool>) {
          return held ? L"TRUE" : L"FALSE";
        } else {
          return std::to_wstring(held);
        }
      },
      value);
}

ClassPointer Repository::findClass(std::wstring_view name) const {
  auto found = classes_.find(lower(name));
  return found != classes_.end() ? found->second : nullptr;
}

std::vector<ClassPointer> Repository::derivedFrom(std::wstring_view name) const {
  std::vector<ClassPointer> result;
  for (const auto& [key, type] : classes_) {
    if (!sameName(key, name) && type->derivesFrom(name)) {
      result.push_back(type);
    }
  }
  return result;
}

const Object* Repository::findInstance(const ObjectPath& path) const {
  for (const Object& instance : instances_) {
    if (path.names(instance)) {
      return &instance;
    }
  }
  return nullptr;
}

void Repository::putClass(Class type, Update update) {
  ClassPointer& place = classes_[lower(type.name)];
  std::vector<ClassPointer> derived;
  if (place) {
    derived = derivedFrom(type.name);
  }
  if (!derived.empty()) {
    if (place->superclass == type.superclass && place->qualifiers == type.qualifiers &&
        place->properties == type.properties) {
      return; // the derived classes refer to the existing object
    }
    const bool isAddition = std::all_of(
        place->properties.begin(), place->properties.end(), [&](const Property& property) {
          const std::optional<std::size_t> found = type.find(property.name);
          return found && type.properties[*found].cimType == property.cimType &&
                 type.properties[*found].isArray == property.isArray;
        });
    if (update != Update::Safe || !isAddition) {
      throw std::runtime_error("class " + ascii(type.name) +
                               " has derived classes and cannot change");
    }
  }
  place = std::make_shared<const Class>(std::move(type));
  const auto depth = [](const ClassPointer& of) {
    int above = 0;
    for (ClassPointer each = of->superclass; each; each = each->superclass) {
      ++above;
    }
    return above;
  };
  std::sort(derived.begin(), derived.end(),
            [&](const ClassPointer& one, const ClassPointer& other) {
              return depth(one) < depth(other); // parents first
            });
  for (const ClassPointer& each : derived) {
    inheritAgain(each);
  }
}

void Repository::inheritAgain(const ClassPointer& derived) {
  Class type = *derived;
  type.superclass = findClass(type.superclass->name);
  for (const Property& property : type.superclass->properties) {
    if (!type.find(property.name)) {
      type.properties.push_back(property);
    }
  }
  classes_[lower(derived->name)] = std::make_shared<const Class>(std::move(type));
}

void Repository::putInstance(Object instance) {
  std::optional<std::wstring> path = instance.relativePath();
  if (!path) {
    throw std::runtime_error("instance of " + ascii(instance.type->name) +
                             " without a value for its key");
  }
  if (std::optional<ObjectPath> parsed = parsePath(*path)) {
    removeInstance(*parsed);
  }
  instances_.push_back(std::move(instance));
}

void Repository::removeClass(std::wstring_view name) {
  if (!findClass(name)) {
    return;
  }
  std::erase_if(instances_,
                [&](const Object& instance) { return instance.type->derivesFrom(name); });
  std::erase_if(classes_, [&](const auto& entry) { return entry.second->derivesFrom(name); });
}

void Repository::removeInstance(const ObjectPath& path) {
  std::erase_if(instances_, [&](const Object& instance) { return path.names(instance); });
}

} // namespace wmi_host
