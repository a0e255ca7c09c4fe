#include "xml/XmlText.h"

#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include <memory>

namespace {

struct Release {
  void operator()(char* text) const { xercesc::XMLString::release(&text); }
  void operator()(XMLCh* text) const { xercesc::XMLString::release(&text); }
};

} // namespace

std::string narrow(const XMLCh* text) {
  if (text == nullptr) {
    return {};
  }
  const std::unique_ptr<char, Release> converted(xercesc::XMLString::transcode(text));
  return converted.get();
}

std::basic_string<XMLCh> widen(const std::string& text) {
  const std::unique_ptr<XMLCh, Release> converted(xercesc::XMLString::transcode(text.c_str()));
  return converted.get();
}
