#include "Wql.h"

#include <algorithm>

namespace wmi_host {
namespace {

bool isNameStart(wchar_t c) {
  return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
}
bool isNamePart(wchar_t c) {
  return isNameStart(c) || (c >= L'0' && c <= L'9');
}

/// Reads tokens from the start of a text. On failure a method consumes nothing.
class Scanner {
public:
  explicit Scanner(std::wstring_view text) : rest_(text) {}

  bool takeChar(wchar_t c) {
    if (!rest_.starts_with(c)) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }
  std::wstring takeName() {
    std::size_t length = 0;
    if (!rest_.empty() && isNameStart(rest_.front())) {
      length = static_cast<std::size_t>(std::find_if_not(rest_.begin(), rest_.end(), isNamePart) -
                                        rest_.begin());
    }
    std::wstring name(rest_.substr(0, length));
    rest_.remove_prefix(length);
    return name;
  }
  bool takeWord(std::wstring_view word) {
    std::wstring_view before = rest_;
    if (sameName(takeName(), word)) {
      return true;
    }
    rest_ = before;
    return false;
  }
  void skipBlanks() {
    while (!rest_.empty() && (rest_[0] == L' ' || (rest_[0] >= L'\t' && rest_[0] <= L'\r'))) {
      rest_.remove_prefix(1);
    }
  }
  std::optional<Scalar> takeValue() {
    if (rest_.starts_with(L'"') || rest_.starts_with(L'\'')) {
      return takeString();
    }
    if (takeWord(L"TRUE")) {
      return true;
    }
    if (takeWord(L"FALSE")) {
      return false;
    }
    std::size_t length = 0;
    while (length < rest_.size() &&
           (isNamePart(rest_[length]) || (length == 0 && rest_[0] == L'-'))) {
      ++length;
    }
    std::optional<Scalar> number = parseInteger(rest_.substr(0, length));
    if (number) {
      rest_.remove_prefix(length);
    }
    return number;
  }
  bool atEnd() const { return rest_.empty(); }

private:
  std::optional<Scalar> takeString() {
    std::wstring text;
    for (std::size_t i = 1; i < rest_.size(); ++i) {
      if (rest_[i] == rest_[0]) {
        rest_.remove_prefix(i + 1);
        return text;
      }
      if (rest_[i] == L'\\' && i + 1 < rest_.size()) {
        ++i;
      }
      text += rest_[i];
    }
    return std::nullopt;
  }

  std::wstring_view rest_;
};

bool sameValue(const Scalar& one, const Scalar& other) {
  const auto* text = std::get_if<std::wstring>(&one);
  const auto* otherText = std::get_if<std::wstring>(&other);
  return text != nullptr && otherText != nullptr ? sameName(*text, *otherText) : one == other;
}

/// A number may be written as text, as scripts must do for 64-bit numbers.
std::optional<Scalar> comparable(CimType type, const Scalar& value) {
  if (type == CimType::datetime || type == CimType::reference) {
    type = CimType::string;
  }
  if (std::optional<Scalar> fitted = fit(type, value)) {
    return fitted;
  }
  const auto* text = std::get_if<std::wstring>(&value);
  std::optional<Scalar> number = text != nullptr ? parseInteger(*text) : std::nullopt;
  return number ? fit(type, *number) : std::nullopt;
}

} // namespace

std::wstring ObjectPath::relative() const {
  std::wstring text = className;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (!keys[i].first.empty()) {
      text += (i == 0 ? L"." : L",") + keys[i].first;
    }
    text += L"=" + literal(keys[i].second);
  }
  return text;
}

bool ObjectPath::names(const Object& instance) const {
  if (!instance.isInstance || !instance.type->derivesFrom(className)) {
    return false;
  }
  std::size_t keyCount = 0;
  for (std::size_t i = 0; i < instance.values.size(); ++i) {
    const Property& property = instance.type->properties[i];
    if (!property.isKey()) {
      continue;
    }
    ++keyCount;
    auto given = std::find_if(keys.begin(), keys.end(), [&](const auto& key) {
      return key.first.empty() || sameName(key.first, property.name);
    });
    if (given == keys.end() || instance.values[i].items.size() != 1) {
      return false;
    }
    std::optional<Scalar> value = comparable(property.type, given->second);
    if (!value || !sameValue(*value, instance.values[i].items.front())) {
      return false;
    }
  }
  return keyCount == keys.size() && keyCount > 0;
}

std::optional<ObjectPath> parsePath(std::wstring_view text) {
  ObjectPath path;
  // A colon in a key's text does not end the namespace.
  std::size_t colon = text.substr(0, text.find_first_of(L"\"'=")).find(L':');
  if (colon != std::wstring_view::npos) {
    path.nameSpace = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  Scanner scanner(text);
  path.className = scanner.takeName();
  if (path.className.empty()) {
    return std::nullopt;
  }
  const auto takeKey = [&](const std::wstring& name) {
    std::optional<Scalar> value = scanner.takeChar(L'=') ? scanner.takeValue() : std::nullopt;
    if (value) {
      path.keys.emplace_back(name, *value);
    }
    return value.has_value();
  };
  if (scanner.takeChar(L'.')) {
    do {
      std::wstring name = scanner.takeName();
      if (name.empty() || !takeKey(name)) {
        return std::nullopt;
      }
    } while (scanner.takeChar(L','));
  } else if (!scanner.atEnd() && !takeKey({})) {
    return std::nullopt;
  }
  return scanner.atEnd() ? std::optional(path) : std::nullopt;
}

bool isServedNamespace(std::wstring_view text) {
  std::wstring name = lower(text);
  std::replace(name.begin(), name.end(), L'/', L'\\');
  constexpr std::wstring_view kThisMachine = L"\\\\.\\";
  if (name.starts_with(kThisMachine)) {
    name.erase(0, kThisMachine.size());
  }
  return name.empty() || name == L"root\\cimv2" || name == L"root\\subscription" ||
         name == L"root\\standardcimv2\\embedded";
}

bool Query::fits(const Class& type) const {
  for (const std::wstring& name : properties) {
    if (!type.find(name) && !name.starts_with(L"__")) {
      return false;
    }
  }
  return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& condition) {
    std::optional<std::size_t> index = type.find(condition.property);
    return index && !type.properties[*index].isArray &&
           comparable(type.properties[*index].type, condition.value);
  });
}

bool Query::matches(const Object& object) const {
  return std::all_of(conditions.begin(), conditions.end(), [&](const Condition& condition) {
    std::optional<std::size_t> index = object.type->find(condition.property);
    if (!index || object.values[*index].items.size() != 1) {
      return false;
    }
    std::optional<Scalar> value = comparable(object.type->properties[*index].type, condition.value);
    return value && sameValue(*value, object.values[*index].items.front());
  });
}

Object Query::project(const Object& object) const {
  if (properties.empty()) {
    return object;
  }
  auto type = std::make_shared<Class>(*object.type);
  type->properties.clear();
  Object result{nullptr, object.isInstance, {}};
  for (std::size_t i = 0; i < object.values.size(); ++i) {
    const Property& property = object.type->properties[i];
    if (std::any_of(properties.begin(), properties.end(),
                    [&](const std::wstring& name) { return sameName(name, property.name); })) {
      type->properties.push_back(property);
      result.values.push_back(object.values[i]);
    }
  }
  result.type = std::move(type);
  return result;
}

std::optional<Query> parseQuery(std::wstring_view text) {
  Query query;
  Scanner scanner(text);
  auto word = [&](std::wstring_view expected) {
    scanner.skipBlanks();
    return scanner.takeWord(expected);
  };
  auto name = [&] {
    scanner.skipBlanks();
    return scanner.takeName();
  };
  auto character = [&](wchar_t c) {
    scanner.skipBlanks();
    return scanner.takeChar(c);
  };
  if (!word(L"SELECT")) {
    return std::nullopt;
  }
  if (!character(L'*')) {
    do {
      query.properties.push_back(name());
      if (query.properties.back().empty()) {
        return std::nullopt;
      }
    } while (character(L','));
  }
  if (!word(L"FROM")) {
    return std::nullopt;
  }
  query.className = name();
  if (query.className.empty()) {
    return std::nullopt;
  }
  if (word(L"WHERE")) {
    do {
      std::wstring property = name();
      if (property.empty() || !character(L'=')) {
        return std::nullopt;
      }
      scanner.skipBlanks();
      std::optional<Scalar> value = scanner.takeValue();
      if (!value) {
        return std::nullopt;
      }
      query.conditions.push_back({property, *value});
    } while (word(L"AND"));
  }
  scanner.skipBlanks();
  return scanner.atEnd() ? std::optional(query) : std::nullopt;
}

} // namespace wmi_host
