#include "till/LostCharacters.h"

#include "xml/XmlText.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <algorithm>
#include <cstring>
#include <memory>

namespace till {
namespace {

using Text = std::basic_string<XMLCh>;

std::string utf8(const Text& text) {
  if (text.empty()) {
    return {};
  }
  const xercesc::TranscodeToStr converted(text.c_str(), text.size(), "UTF-8");
  return {reinterpret_cast<const char*>(converted.str()), converted.length()};
}

/// The service's reader hands its texts over in the local code page only, so they are read once
/// more, as they were.
class Finder : public xercesc::DefaultHandler {
public:
  std::vector<LostCharacters> found;

  void startElement(const XMLCh*, const XMLCh*, const XMLCh* name,
                    const xercesc::Attributes& attributes) override {
    const bool isField = xercesc::XMLString::equals(name, u"field");
    const bool isInstance = xercesc::XMLString::equals(name, u"instance");
    if (isInstance) {
      instance_ = ++instances_;
    }
    if (isField) {
      const XMLCh* const fieldName = attributes.getValue(u"name");
      fields_.push_back({fieldName != nullptr ? Text(fieldName) : Text(), {}});
      check("the name", fields_.back().name);
    } else if (isInstance || xercesc::XMLString::equals(name, u"event")) {
      for (const XMLCh* each :
           {u"name", u"type", u"classname", u"modifyInstanceCode", u"provider"}) {
        if (const XMLCh* const value = attributes.getValue(each)) {
          check(utf8(each), value);
        }
      }
    }
    isField_.push_back(isField);
  }

  void endElement(const XMLCh*, const XMLCh*, const XMLCh* name) override {
    if (isField_.back()) {
      check("the value", fields_.back().text);
      fields_.pop_back();
    }
    isField_.pop_back();
    if (xercesc::XMLString::equals(name, u"instance")) {
      instance_ = 0;
    }
  }

  void characters(const XMLCh* text, XMLSize_t length) override {
    if (!fields_.empty()) { // of nested fields the innermost: each is looked at once
      fields_.back().text.append(text, length);
    }
  }

private:
  struct OpenField {
    Text name;
    Text text;
  };

  void check(const std::string& what, const Text& text) {
    if (std::all_of(text.begin(), text.end(), [](XMLCh each) { return each < 0x80; })) {
      return;
    }
    if (const Text arrived = xml::widen(xml::narrow(text)); arrived != text) {
      found.push_back({instance_, fields_.empty() ? "" : utf8(fields_.back().name), what,
                       utf8(text), utf8(arrived)});
    }
  }

  std::size_t instances_ = 0;
  std::size_t instance_ = 0; ///< the open one
  std::vector<OpenField> fields_;
  std::vector<bool> isField_; ///< for each open element
};

} // namespace

std::vector<LostCharacters> findLostCharacters(const std::string& document) {
  const std::size_t size = std::strlen(document.c_str());
  const bool isAscii = std::all_of(document.begin(), document.end(), [](char each) {
    return static_cast<unsigned char>(each) < 0x80;
  });
  if (isAscii && document.find("&#") == std::string::npos &&
      document.find("encoding") == std::string::npos) {
    return {};
  }
  Finder finder;
  const xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(document.data()), size,
                                          "document");
  const std::unique_ptr<xercesc::SAX2XMLReader> reader(
      xercesc::XMLReaderFactory::createXMLReader());
  reader->setFeature(xercesc::XMLUni::fgSAX2CoreNameSpaces, false);
  reader->setFeature(xercesc::XMLUni::fgSAX2CoreValidation, false);
  reader->setFeature(xercesc::XMLUni::fgXercesSchema, false);
  reader->setFeature(xercesc::XMLUni::fgXercesLoadExternalDTD, false);
  reader->setContentHandler(&finder);
  reader->setErrorHandler(&finder);
  reader->parse(source);
  return std::move(finder.found);
}

std::string utf8FromLocal(const std::string& text) {
  return utf8(xml::widen(text));
}

} // namespace till
