#include "till/Xml.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax/Locator.hpp>
#include <xercesc/sax2/Attributes.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLString.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <algorithm>

namespace till {
namespace {

namespace xml = xercesc;

constexpr std::size_t kDeepest = 32;

std::string utf8(const XMLCh* text, XMLSize_t length) {
  if (length == 0) {
    return {};
  }
  const xml::TranscodeToStr converted(text, length, "UTF-8");
  return {reinterpret_cast<const char*>(converted.str()), converted.length()};
}

std::string utf8(const XMLCh* text) {
  return utf8(text, text == nullptr ? 0 : xml::XMLString::stringLen(text));
}

/// Builds the tree. Recursion anywhere near it is bounded by kDeepest.
class TreeBuilder : public xml::DefaultHandler {
public:
  XmlElement root;

  void setDocumentLocator(const xml::Locator* locator) override { locator_ = locator; }

  void startElement(const XMLCh*, const XMLCh*, const XMLCh* name,
                    const xml::Attributes& attributes) override {
    if (open_.size() == kDeepest) {
      throw XmlError(line(), "elements are nested too deeply");
    }
    XmlElement* element = &root;
    if (!open_.empty()) {
      element = &open_.back()->children.emplace_back();
    }
    element->name = utf8(name);
    element->line = line();
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i) {
      element->attributes.emplace_back(utf8(attributes.getQName(i)), utf8(attributes.getValue(i)));
    }
    open_.push_back(element);
  }

  void endElement(const XMLCh*, const XMLCh*, const XMLCh*) override { open_.pop_back(); }

  void characters(const XMLCh* text, XMLSize_t length) override {
    open_.back()->text += utf8(text, length);
  }

  void startDTD(const XMLCh*, const XMLCh*, const XMLCh*) override {
    throw XmlError(line(), "a document type declaration is not accepted");
  }

  void error(const xml::SAXParseException& problem) override { fatalError(problem); }

  void fatalError(const xml::SAXParseException& problem) override {
    throw XmlError(static_cast<std::size_t>(problem.getLineNumber()), utf8(problem.getMessage()));
  }

private:
  std::size_t line() const {
    return locator_ == nullptr ? 0 : static_cast<std::size_t>(locator_->getLineNumber());
  }

  const xml::Locator* locator_ = nullptr;
  // A parent stays open, and so gets no further child, while any of its descendants is open: these
  // pointers into vectors of children stay valid.
  std::vector<XmlElement*> open_;
};

/// The length of the UTF-8 sequence at `text[at]` and its code point; length 0 when it is none.
std::pair<std::size_t, char32_t> decode(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(at);
  if (first < 0x80) {
    return {1, first};
  }
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC2 ? 2 : 0;
  if (length == 0 || first > 0xF4 || text.size() - at < length) {
    return {0, 0};
  }
  char32_t code = first & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0U) != 0x80U) {
      return {0, 0};
    }
    code = (code << 6U) | (byte(at + i) & 0x3FU);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  return code < kSmallest[length] || code > 0x10FFFF ? std::pair<std::size_t, char32_t>(0, 0)
                                                     : std::pair(length, code);
}

/// What stands for a character that cannot stand for itself; empty for the others.
std::string_view escapeOf(char each) {
  switch (each) {
  case '&':
    return "&amp;";
  case '<':
    return "&lt;";
  case '>':
    return "&gt;";
  case '"':
    return "&quot;";
  case '\t':
    return "&#9;";
  case '\n':
    return "&#10;";
  case '\r':
    return "&#13;";
  default:
    return {};
  }
}

} // namespace

const std::string* XmlElement::attribute(std::string_view wanted) const {
  const auto found = std::find_if(attributes.begin(), attributes.end(),
                                  [&](const auto& each) { return each.first == wanted; });
  return found == attributes.end() ? nullptr : &found->second;
}

const XmlElement* XmlElement::child(std::string_view wanted) const {
  const auto found = std::find_if(children.begin(), children.end(),
                                  [&](const XmlElement& each) { return each.name == wanted; });
  return found == children.end() ? nullptr : &*found;
}

XmlLibrary::XmlLibrary() {
  xml::XMLPlatformUtils::Initialize();
}
XmlLibrary::~XmlLibrary() {
  xml::XMLPlatformUtils::Terminate();
}

XmlElement readXml(std::string_view bytes, bool isUtf8) {
  TreeBuilder builder;
  try {
    xml::MemBufInputSource source(reinterpret_cast<const XMLByte*>(bytes.data()), bytes.size(),
                                  "document");
    if (isUtf8) {
      source.setEncoding(xml::XMLUni::fgUTF8EncodingString);
    }
    const std::unique_ptr<xml::SAX2XMLReader> reader(xml::XMLReaderFactory::createXMLReader());
    reader->setFeature(xml::XMLUni::fgSAX2CoreNameSpaces, false);
    reader->setFeature(xml::XMLUni::fgSAX2CoreValidation, false);
    reader->setFeature(xml::XMLUni::fgXercesSchema, false);
    reader->setFeature(xml::XMLUni::fgXercesLoadExternalDTD, false);
    reader->setContentHandler(&builder);
    reader->setErrorHandler(&builder);
    reader->setLexicalHandler(&builder);
    reader->parse(source);
  } catch (const xml::OutOfMemoryException&) {
    throw std::bad_alloc();
  } catch (const xml::XMLException& problem) {
    throw XmlError(static_cast<std::size_t>(problem.getSrcLine()), utf8(problem.getMessage()));
  } catch (const xml::SAXException& problem) {
    throw XmlError(0, utf8(problem.getMessage()));
  }
  return std::move(builder.root);
}

bool isXmlText(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto [length, code] = decode(text, at);
    const bool allowed = code >= 0x20 ? code < 0xD800 || (code > 0xDFFF && code < 0xFFFE) ||
                                            (code > 0xFFFF && code <= 0x10FFFF)
                                      : code == '\t' || code == '\n' || code == '\r';
    if (length == 0 || !allowed) {
      return false;
    }
    at += length;
  }
  return true;
}

std::string escapeXml(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  std::size_t copied = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view escape = escapeOf(text[at]);
    if (!escape.empty()) {
      result.append(text.substr(copied, at - copied)).append(escape);
      copied = at + 1;
    }
  }
  return result.append(text.substr(copied));
}

} // namespace till
