#include "provider/ObjectPathText.h"

#include <algorithm>

namespace provider {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

bool isLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || (c & 0x80) != 0;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isLetterOrDigit(char c) {
  return isLetter(c) || isDigit(c);
}

/// `word` is in upper case.
bool isWord(std::string_view text, std::string_view word) {
  return std::ranges::equal(text, word, {},
                            [](char c) { return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c; });
}

bool isIdentifier(std::string_view text) {
  return !text.empty() && isLetter(text.front()) && std::ranges::all_of(text, isLetterOrDigit);
}

/// A quoted text, a number in any notation, TRUE, FALSE or "@", the key of a singleton.
bool isKeyValue(std::string_view text) {
  if (text.starts_with('"') || text.starts_with('\'')) {
    return text.size() > 1 && text.back() == text.front();
  }
  if (text == "@" || isWord(text, "TRUE") || isWord(text, "FALSE")) {
    return true;
  }
  if (text.starts_with('+') || text.starts_with('-')) {
    text.remove_prefix(1);
  }
  return !text.empty() && isDigit(text.front()) && std::ranges::all_of(text, isLetterOrDigit);
}

} // namespace

bool namesInstance(std::string_view classText) noexcept {
  const std::size_t equals = classText.find('=');
  if (equals == std::string_view::npos) {
    return false;
  }
  std::string_view name = classText.substr(0, equals);
  name.remove_prefix(name.rfind(':') + 1); // npos + 1 is 0
  return isIdentifier(trimmed(name)) && isKeyValue(trimmed(classText.substr(equals + 1)));
}

ObjectPathText readObjectPath(std::string_view path) {
  // Relies on wrapping: npos + 1 is 0, and a wrapped length reaches to the end. A path without
  // quotes is the device id as a whole.
  const std::size_t start = path.find('"') + 1;
  const std::size_t length = path.rfind('"') - start;
  return {std::string(path.substr(0, path.find('.'))), std::string(path.substr(start, length))};
}

} // namespace provider
