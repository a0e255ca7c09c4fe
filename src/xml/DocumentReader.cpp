#include "xml/DocumentReader.h"

#include "xml/XmlFailure.h"
#include "xml/XmlText.h"

#include <xercesc/framework/XMLErrorReporter.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/XMLString.hpp>

#include <cstring>

namespace {

using xercesc::DOMElement;
using xercesc::XMLString;

std::string located(const std::string& message, XMLFileLoc line, XMLFileLoc column) {
  return message + " (line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
}

} // namespace

Elements elementsBelow(const DOMElement& scope, const XMLCh* name) {
  Elements found;
  const DOMElement* current = &scope;
  for (;;) {
    const DOMElement* next = current->getFirstElementChild();
    while (next == nullptr) {
      if (current == &scope) {
        return found;
      }
      next = current->getNextElementSibling();
      if (next == nullptr) {
        // Without a document type there are no entity nodes: what holds an element is an element.
        current = static_cast<const DOMElement*>(current->getParentNode());
      }
    }
    current = next;
    if (XMLString::equals(current->getTagName(), name)) {
      found.push_back(current);
    }
  }
}

std::string attributeOf(const DOMElement& element, const XMLCh* name) {
  return narrow(element.getAttribute(name));
}

Field fieldOf(const DOMElement& element) {
  return {attributeOf(element, u"name"), attributeOf(element, u"type"),
          narrow(element.getTextContent())};
}

/// The library's parser with its default settings and no error handler, which would report nothing
/// at all: it listens to its own scanner instead.
class DocumentReader::Parser : public xercesc::XercesDOMParser {
public:
  Parser() {
    getScanner()->setDisallowDTD(true);
    getScanner()->setErrorReporter(this);
  }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  ~Parser() override {
    try {
      resetDocumentPool();
    } catch (...) { // refused after a parse that ran out of memory; the base frees it all the same
    }
  }

  void read(const xercesc::InputSource& source) {
    parse(source);
    if (!firstError_.empty()) {
      throw XmlFailure(firstError_);
    }
    if (getErrorCount() != 0 || getDocument() == nullptr ||
        getDocument()->getDocumentElement() == nullptr) {
      throw XmlFailure("The document is not readable");
    }
  }

  void error(const unsigned int, const XMLCh* const, const ErrTypes type,
             const XMLCh* const message, const XMLCh* const, const XMLCh* const,
             const XMLFileLoc line, const XMLFileLoc column) override {
    if (type != ErrType_Warning && firstError_.empty()) {
      firstError_ = located(narrow(message), line, column);
    }
  }

  void startElement(const xercesc::XMLElementDecl& declaration, const unsigned int uri,
                    const XMLCh* const prefix,
                    const xercesc::RefVectorOf<xercesc::XMLAttr>& attributes,
                    const XMLSize_t attributeCount, const bool isEmpty,
                    const bool isRoot) override {
    if (++depth_ > kMaximumDepth) {
      const xercesc::Locator& place = *getScanner()->getLocator();
      throw XmlFailure(located("Elements are nested too deeply", place.getLineNumber(),
                               place.getColumnNumber()));
    }
    XercesDOMParser::startElement(declaration, uri, prefix, attributes, attributeCount, isEmpty,
                                  isRoot);
  }

  /// The library calls it for an empty element too, from within startElement.
  void endElement(const xercesc::XMLElementDecl& declaration, const unsigned int uri,
                  const bool isRoot, const XMLCh* const prefix) override {
    --depth_;
    XercesDOMParser::endElement(declaration, uri, isRoot, prefix);
  }

private:
  std::size_t depth_ = 0;
  std::string firstError_;
};

DocumentReader::DocumentReader(const std::string& text)
    : source_(reinterpret_cast<const XMLByte*>(text.c_str()), std::strlen(text.c_str()),
              "simple buffer"),
      parser_(std::make_unique<Parser>()) {
  source_.setCopyBufToStream(false);
  parser_->read(source_);
}

DocumentReader::~DocumentReader() = default;

Elements DocumentReader::elements(const XMLCh* name) const {
  const DOMElement& root = *parser_->getDocument()->getDocumentElement();
  Elements found = elementsBelow(root, name);
  if (XMLString::equals(root.getTagName(), name)) {
    found.insert(found.begin(), &root);
  }
  return found;
}
