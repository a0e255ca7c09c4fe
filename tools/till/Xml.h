#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace till {

/// A document that cannot be read: not well-formed, nested too deeply, or with a document type
/// declaration that declares or names anything: entities expand without bound and reach files.
class XmlError : public std::runtime_error {
public:
  XmlError(std::size_t line, const std::string& text) : std::runtime_error(text), line_(line) {}
  std::size_t line() const { return line_; }

private:
  std::size_t line_;
};

/// An element with its texts in UTF-8. `text` is its own, without that of its children.
struct XmlElement {
  std::string name;
  std::size_t line = 0;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::string text;
  std::vector<XmlElement> children;

  /// Null when there is no such attribute or child.
  const std::string* attribute(std::string_view wanted) const;
  const XmlElement* child(std::string_view wanted) const;
};

/// Holds the XML library; one for the life of the process.
class XmlLibrary {
public:
  XmlLibrary();
  ~XmlLibrary();
  XmlLibrary(const XmlLibrary&) = delete;
  XmlLibrary& operator=(const XmlLibrary&) = delete;
};

/// `isUtf8` overrides whatever encoding the document declares. Throws XmlError.
XmlElement readXml(std::string_view bytes, bool isUtf8 = false);

/// True for UTF-8 text that holds only characters which XML 1.0 allows.
bool isXmlText(std::string_view text);

/// Escaped for use as text and inside double quotes; line ends and tabs survive.
std::string escapeXml(std::string_view text);

} // namespace till
