#include "xml/DocumentReader.h"

#include "xml/XmlFailure.h"
#include "xml/XmlText.h"

#include <xercesc/framework/MemBufInputSource.hpp>
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

using xercesc::XMLString;

constexpr std::array<const XMLCh*, 4> kElements = {u"error", u"event", u"field", u"instance"};
constexpr std::array<const XMLCh*, 1> kTexts = {u"field"};
constexpr std::array<const XMLCh*, 5> kAttributes = {u"name", u"type", u"classname",
                                                     u"modifyInstanceCode", u"provider"};

/// The index of `name`; the number of names if it is none of them.
std::size_t indexOf(std::span<const XMLCh* const> names, const XMLCh* name) {
  return static_cast<std::size_t>(
      std::ranges::find_if(names,
                           [name](const XMLCh* one) { return XMLString::equals(one, name); }) -
      names.begin());
}

std::string withLocation(const std::string& message, XMLFileLoc line, XMLFileLoc column) {
  return message + " (line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
}

} // namespace

const Vocabulary& protocolVocabulary() noexcept {
  static constexpr Vocabulary vocabulary{kElements, kTexts, kAttributes};
  return vocabulary;
}

/// The library's DOM parser, which hands what it scans to the reader instead of building a tree.
/// Without an error handler the library reports no errors, so this parser receives them from its
/// own scanner.
class DocumentReader::Parser : public xercesc::XercesDOMParser {
  using Attributes = xercesc::RefVectorOf<xercesc::XMLAttr>;

public:
  explicit Parser(DocumentReader& reader) : reader_(reader) {
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
    if (getErrorCount() != 0 || !hasRoot_) {
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
    hasRoot_ = true;
    const Vocabulary& vocabulary = reader_.vocabulary_;
    const XMLCh* const name = declaration.getFullName();
    const std::size_t index = indexOf(vocabulary.elements, name);
    const bool isKept = index != vocabulary.elements.size();
    const Open& opened =
        open_.emplace_back(Open{isKept, isKept && contains(vocabulary.texts, name), number()});
    textDepth_ += std::size_t{opened.hasText};
    if (isKept) {
      keep(index, attributes, attributeCount);
    }
    if (isEmpty) {
      endElement(declaration, uri, isRoot, prefix);
    }
  }

  void endElement(const xercesc::XMLElementDecl&, const unsigned int, const bool,
                  const XMLCh* const) override {
    const Open closed = open_.back();
    open_.pop_back();
    textDepth_ -= std::size_t{closed.hasText};
    if (closed.isKept) {
      Element& element = reader_.elements_[closed.number];
      element.end = number();
      element.textEnd = reader_.text_.size();
    }
  }

  void docCharacters(const XMLCh* const text, const XMLSize_t length, const bool) override {
    if (textDepth_ != 0) {
      reader_.text_.append(text, length);
    }
  }

  void docComment(const XMLCh* const) override {}
  void docPI(const XMLCh* const, const XMLCh* const) override {}

private:
  struct Open {
    bool isKept;
    bool hasText;
    std::size_t number; ///< of the element, if it is kept
  };

  static bool contains(std::span<const XMLCh* const> names, const XMLCh* name) {
    return indexOf(names, name) != names.size();
  }

  /// Of the next element that is kept.
  std::size_t number() const { return reader_.elements_.size(); }

  void keep(std::size_t name, const Attributes& attributes, XMLSize_t count) {
    const std::size_t begin = reader_.attributes_.size();
    for (XMLSize_t i = 0; i < count; ++i) {
      const xercesc::XMLAttr& attribute = *attributes.elementAt(i);
      const std::size_t index = indexOf(reader_.vocabulary_.attributes, attribute.getName());
      if (index != reader_.vocabulary_.attributes.size()) {
        reader_.attributes_.push_back({index, reader_.values_.size()});
        reader_.values_.append(attribute.getValue()).push_back(0);
      }
    }
    const std::size_t text = reader_.text_.size();
    reader_.elements_.push_back({name, 0, text, text, begin, reader_.attributes_.size()});
  }

  DocumentReader& reader_;
  std::vector<Open> open_;    ///< the open elements, root first
  std::size_t textDepth_ = 0; ///< number of open elements whose text is kept
  bool hasRoot_ = false;
  std::string firstError_;
};

DocumentReader::DocumentReader(const std::string& text, const Vocabulary& vocabulary)
    : vocabulary_(vocabulary), byName_(vocabulary.elements.size()) {
  const std::size_t size = std::strlen(text.c_str());
  readBudget_ = std::max(kMaxReadPerByte * size, kMinReadBudget);
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), size,
                                    "simple buffer");
  source.setCopyBufToStream(false);
  Parser(*this).read(source);
  for (const Element& element : elements_) {
    byName_[element.name].push_back(&element);
  }
}

DocumentReader::Elements DocumentReader::elements(const XMLCh* name) const {
  const std::size_t index = indexOf(vocabulary_.elements, name);
  return index < byName_.size() ? Elements(byName_[index]) : Elements();
}

DocumentReader::Elements DocumentReader::elementsBelow(const Element& scope,
                                                       const XMLCh* name) const {
  const Elements all = elements(name);
  const auto begin = std::ranges::upper_bound(all, &scope);
  return {begin, std::ranges::lower_bound(begin, all.end(), elements_.data() + scope.end)};
}

std::string DocumentReader::attributeOf(const Element& element, const XMLCh* name) const {
  const std::size_t index = indexOf(vocabulary_.attributes, name);
  for (std::size_t i = element.attributesBegin; i != element.attributesEnd; ++i) {
    if (attributes_[i].name == index) {
      return narrow(values_.c_str() + attributes_[i].value);
    }
  }
  return {};
}

Field DocumentReader::readField(const Element& element) {
  charge(static_cast<std::size_t>(elements_.data() + element.end - &element) - 1);
  Field field{attributeOf(element, u"name"), attributeOf(element, u"type"),
              narrow(std::basic_string_view<XMLCh>(text_).substr(
                  element.textBegin, element.textEnd - element.textBegin))};
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
