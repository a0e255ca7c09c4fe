#include "xml/DocumentReader.h"

#include "xml/XmlFailure.h"
#include "xml/XmlText.h"

#include <xercesc/framework/XMLErrorReporter.hpp>
#include <xercesc/internal/XMLScanner.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/XMLString.hpp>

#include <algorithm>
#include <array>
#include <cstring>

using model::Field;

namespace xml {

namespace {

using xercesc::DOMElement;
using xercesc::DOMNode;
using xercesc::XMLString;

constexpr std::array<const XMLCh*, 4> kElements = {u"error", u"event", u"field", u"instance"};
constexpr std::array<const XMLCh*, 1> kTexts = {u"field"};
constexpr std::array<const XMLCh*, 5> kAttributes = {u"name", u"type", u"classname",
                                                     u"modifyInstanceCode", u"provider"};

/// Walks the nodes below `scope` in document order: calls `enter` before and `leave` after a node's
/// children. Not recursive, so the nesting depth cannot exhaust the stack. `open` holds the
/// enclosing nodes: the library's getParentNode costs more than the rest of a step.
template <class Enter, class Leave>
void walkBelow(const DOMNode& scope, std::vector<const DOMNode*>& open, const Enter& enter,
               const Leave& leave) {
  open.clear();
  const DOMNode* node = &scope;
  for (;;) {
    if (const DOMNode* const child = node->getFirstChild()) {
      open.push_back(node);
      node = child;
    } else {
      for (;;) {
        if (open.empty()) {
          return;
        }
        leave(*node);
        if (const DOMNode* const sibling = node->getNextSibling()) {
          node = sibling;
          break;
        }
        node = open.back();
        open.pop_back();
      }
    }
    enter(*node);
  }
}

bool isElement(const DOMNode& node) {
  return node.getNodeType() == DOMNode::ELEMENT_NODE;
}

bool isElement(const DOMNode& node, const XMLCh* name) {
  return isElement(node) && XMLString::equals(node.getNodeName(), name);
}

constexpr auto ignore = [](const DOMNode&) {};

Elements elementsIn(const DOMNode& scope, const XMLCh* name) {
  Elements found;
  std::vector<const DOMNode*> open;
  walkBelow(
      scope, open,
      [&](const DOMNode& node) {
        if (isElement(node, name)) {
          found.push_back(static_cast<const DOMElement*>(&node));
        }
      },
      ignore);
  return found;
}

bool contains(std::span<const XMLCh* const> names, const XMLCh* name) {
  return std::any_of(names.begin(), names.end(),
                     [name](const XMLCh* one) { return XMLString::equals(one, name); });
}

std::string withLocation(const std::string& message, XMLFileLoc line, XMLFileLoc column) {
  return message + " (line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
}

} // namespace

const Vocabulary& protocolVocabulary() noexcept {
  static constexpr Vocabulary vocabulary{kElements, kTexts, kAttributes};
  return vocabulary;
}

Elements elementsBelow(const DOMElement& scope, const XMLCh* name) {
  return elementsIn(scope, name);
}

std::string attributeOf(const DOMElement& element, const XMLCh* name) {
  return narrow(element.getAttribute(name));
}

/// The library's DOM parser, reduced to the vocabulary. Without an error handler the library
/// reports no errors, so this parser receives them from its own scanner.
class DocumentReader::Parser : public xercesc::XercesDOMParser {
  using Attributes = xercesc::RefVectorOf<xercesc::XMLAttr>;

public:
  explicit Parser(const Vocabulary& vocabulary) : vocabulary_(vocabulary) {
    getScanner()->setDisallowDTD(true);
    getScanner()->setErrorReporter(this);
  }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  ~Parser() override {
    try {
      resetDocumentPool();
    } catch (...) { // fails after a parse that ran out of memory; the base class frees the document
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
      firstError_ = withLocation(narrow(message), line, column);
    }
  }

  void startElement(const xercesc::XMLElementDecl& declaration, const unsigned int uri,
                    const XMLCh* const prefix, const Attributes& attributes,
                    const XMLSize_t attributeCount, const bool isEmpty,
                    const bool isRoot) override {
    if (open_.size() == kMaximumDepth) {
      const xercesc::Locator& place = *getScanner()->getLocator();
      throw XmlFailure(withLocation("Elements are nested too deeply", place.getLineNumber(),
                                    place.getColumnNumber()));
    }
    const XMLCh* const name = declaration.getFullName();
    const bool kept = isRoot || contains(vocabulary_.elements, name);
    const Open& opened = open_.emplace_back(Open{kept, contains(vocabulary_.texts, name)});
    textDepth_ += std::size_t{opened.hasText};
    if (kept) {
      wanted_.removeAllElements();
      for (XMLSize_t i = 0; i < attributeCount; ++i) {
        const xercesc::XMLAttr* const attribute = attributes.elementAt(i);
        if (contains(vocabulary_.attributes, attribute->getName())) {
          wanted_.addElement(const_cast<xercesc::XMLAttr*>(attribute)); // only read by the library
        }
      }
      XercesDOMParser::startElement(declaration, uri, prefix, wanted_, wanted_.size(), isEmpty,
                                    isRoot);
    } else if (isEmpty) {
      endElement(declaration, uri, isRoot, prefix);
    }
  }

  /// The library calls it for empty elements too, from inside startElement.
  void endElement(const xercesc::XMLElementDecl& declaration, const unsigned int uri,
                  const bool isRoot, const XMLCh* const prefix) override {
    const Open closed = open_.back();
    open_.pop_back();
    textDepth_ -= std::size_t{closed.hasText};
    if (closed.kept) {
      XercesDOMParser::endElement(declaration, uri, isRoot, prefix);
    }
  }

  void docCharacters(const XMLCh* const text, const XMLSize_t length, const bool) override {
    if (textDepth_ != 0) {
      XercesDOMParser::docCharacters(text, length, false); // CDATA sections become plain text
    }
  }

  void docComment(const XMLCh* const) override {}
  void docPI(const XMLCh* const, const XMLCh* const) override {}

private:
  struct Open {
    bool kept;
    bool hasText;
  };

  const Vocabulary& vocabulary_;
  Attributes wanted_{5, false}; ///< the kept attributes of the current element; owns none of them
  std::vector<Open> open_;      ///< the open elements, root first
  std::size_t textDepth_ = 0;   ///< number of open elements whose text is kept
  std::string firstError_;
};

DocumentReader::DocumentReader(const std::string& text, const Vocabulary& vocabulary)
    : DocumentReader(text.c_str(), std::strlen(text.c_str()), vocabulary) {}

DocumentReader::DocumentReader(const char* text, std::size_t size, const Vocabulary& vocabulary)
    : readBudget_(std::max(kMaxReadPerByte * size, kMinReadBudget)),
      source_(reinterpret_cast<const XMLByte*>(text), size, "simple buffer"),
      parser_(std::make_unique<Parser>(vocabulary)) {
  source_.setCopyBufToStream(false);
  parser_->read(source_);
}

DocumentReader::~DocumentReader() = default;

Elements DocumentReader::elements(const XMLCh* name) const {
  return elementsIn(*parser_->getDocument(), name);
}

std::vector<DocumentReader::WithFields> DocumentReader::elementsWithFields(const XMLCh* name) {
  struct Place {
    const DOMElement* element;
    std::size_t begin; // of its fields in fields_
    std::size_t end;
  };
  std::vector<Place> places;
  std::vector<std::size_t> open; // indices in `places` of the enclosing elements
  fields_.clear();
  walkBelow(
      *parser_->getDocument(), path_,
      [&](const DOMNode& node) {
        if (isElement(node, u"field")) {
          fields_.push_back(static_cast<const DOMElement*>(&node));
        }
        if (isElement(node, name)) {
          open.push_back(places.size());
          places.push_back({static_cast<const DOMElement*>(&node), fields_.size(), 0});
        }
      },
      [&](const DOMNode& node) {
        if (!open.empty() && places[open.back()].element == &node) {
          places[open.back()].end = fields_.size();
          open.pop_back();
        }
      });
  std::vector<WithFields> found;
  found.reserve(places.size());
  for (const Place& place : places) {
    found.push_back({place.element, std::span<const DOMElement* const>(fields_).subspan(
                                        place.begin, place.end - place.begin)});
  }
  return found;
}

Field DocumentReader::readField(const DOMElement& element) {
  text_.clear();
  walkBelow(
      element, path_,
      [&](const DOMNode& node) {
        if (isElement(node)) {
          charge(1);
        } else {
          text_ += node.getNodeValue();
        }
      },
      ignore);
  Field field{attributeOf(element, u"name"), attributeOf(element, u"type"), narrow(text_.c_str())};
  charge(kFieldCost + field[0].size() + field[1].size() + field[2].size());
  return field;
}

void DocumentReader::charge(std::size_t cost) {
  if (cost > readBudget_) {
    throw XmlFailure("Nested fields repeat too much of the document");
  }
  readBudget_ -= cost;
}

} // namespace xml
