#include "xml/XmlText.h"

#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include <algorithm>
#include <memory>

namespace xml {

namespace {

struct Release {
  void operator()(char* text) const { xercesc::XMLString::release(&text); }
  void operator()(XMLCh* text) const { xercesc::XMLString::release(&text); }
};

/// Every ANSI code page of Windows, and every locale of the native builds, contains ASCII
/// unchanged. ASCII text is therefore copied without the platform.
constexpr XMLCh kEndOfAscii = 0x80;

} // namespace

std::string narrow(const XMLCh* text) {
  if (text == nullptr) {
    return {};
  }
  const XMLCh* end = text;
  while (*end != 0 && *end < kEndOfAscii) {
    ++end;
  }
  if (*end == 0) {
    std::string bytes(static_cast<std::size_t>(end - text), '\0');
    std::copy(text, end, bytes.begin());
    return bytes;
  }
  const std::unique_ptr<char, Release> converted(xercesc::XMLString::transcode(text));
  return converted.get();
}

std::basic_string<XMLCh> widen(const std::string& text) {
  const std::unique_ptr<XMLCh, Release> converted(xercesc::XMLString::transcode(text.c_str()));
  return converted.get();
}

} // namespace xml
