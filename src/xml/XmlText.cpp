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

std::string narrow(std::basic_string_view<XMLCh> text) {
  if (std::ranges::all_of(text, [](XMLCh each) { return each < kEndOfAscii; })) {
    std::string bytes(text.size(), '\0');
    std::ranges::transform(text, bytes.begin(), [](XMLCh each) { return static_cast<char>(each); });
    return bytes;
  }
  const std::unique_ptr<char, Release> converted(
      xercesc::XMLString::transcode(std::basic_string<XMLCh>(text).c_str()));
  return converted.get();
}

std::string narrow(const XMLCh* text) {
  return text != nullptr ? narrow(std::basic_string_view<XMLCh>(text)) : std::string();
}

std::basic_string<XMLCh> widen(const std::string& text) {
  const std::unique_ptr<XMLCh, Release> converted(xercesc::XMLString::transcode(text.c_str()));
  return converted.get();
}

} // namespace xml
