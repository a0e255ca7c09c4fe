#include "xml/RequestDocument.h"

#include "xml/XmlText.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>

#include <memory>
#include <stdexcept>

namespace xml {

namespace {

/// DOM objects are freed with release(), not with delete.
struct Release {
  template <class Resource>
  void operator()(Resource* resource) const {
    resource->release();
  }
};
template <class Resource>
using Released = std::unique_ptr<Resource, Release>;

/// As widen, but throws std::runtime_error when a non-empty text cannot be converted.
std::basic_string<XMLCh> converted(const std::string& text) {
  auto wide = widen(text);
  if (wide.empty() && text.c_str()[0] != '\0') {
    throw std::runtime_error("text is not in the local code page");
  }
  return wide;
}

void appendElement(xercesc::DOMDocument& document, const XMLCh* name, const std::string& text) {
  xercesc::DOMElement* element = document.createElement(name);
  document.getDocumentElement()->appendChild(element);
  element->appendChild(document.createTextNode(converted(text).c_str()));
}

std::string serialise(xercesc::DOMImplementation& implementation,
                      const xercesc::DOMDocument& document) {
  xercesc::MemBufFormatTarget target;
  const Released<xercesc::DOMLSOutput> output(implementation.createLSOutput());
  output->setEncoding(u"UTF-8");
  output->setByteStream(&target);
  const Released<xercesc::DOMLSSerializer> serializer(implementation.createLSSerializer());
  if (!serializer->write(&document, output.get())) {
    throw std::runtime_error("the document was not written");
  }
  return {reinterpret_cast<const char*>(target.getRawBuffer()),
          static_cast<std::size_t>(target.getLen())};
}

} // namespace

std::string buildRequestDocument(const std::string& className, const std::string& type,
                                 const std::string& cmd, const std::string& id) {
  xercesc::DOMImplementation* core =
      xercesc::DOMImplementationRegistry::getDOMImplementation(u"Core");
  if (core == nullptr) {
    throw CoreUnavailable();
  }
  const Released<xercesc::DOMDocument> document(
      core->createDocument(nullptr, converted(type).c_str(), nullptr));
  appendElement(*document, u"type", cmd);
  appendElement(*document, u"class", className);
  if (!id.empty()) {
    appendElement(*document, u"id", id);
  }
  return serialise(*core, *document);
}

} // namespace xml
