#pragma once

#include "model/InstanceList.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

using Elements = std::vector<const xercesc::DOMElement*>;

/// All elements of that name below `scope`, at any depth, in document order. Walked here in linear
/// time: the library keeps one list per scope in a table that does not grow with their number.
Elements elementsBelow(const xercesc::DOMElement& scope, const XMLCh* name);

/// The attribute's value in the local code page; empty when it is missing.
std::string attributeOf(const xercesc::DOMElement& element, const XMLCh* name);

/// The names that are looked for in a document.
struct Vocabulary {
  std::span<const XMLCh* const> elements;
  std::span<const XMLCh* const> texts; ///< the elements whose text is looked at
  std::span<const XMLCh* const> attributes;
};

/// What answers and events hold.
const Vocabulary& protocolVocabulary() noexcept;

/// One document of a peer, read safely: nothing outside the text is opened, a document type
/// declaration is refused (so there are no entities but the five of XML), and so are elements
/// nested more deeply than kMaximumDepth. Either the whole document is there or none of it.
///
/// Only what the vocabulary names is kept: a tree of everything would take up to 56 times the
/// memory of its document, and the library's time for an element's attributes grows with their
/// square. Of the other elements the kept ones and the text inside take the place. The root is
/// always kept.
///
/// Owner: one call, on its stack, within an XmlLibrary session. One thread.
/// Errors: the constructor throws XmlFailure with the library's message, line and column for a
/// document that is not well-formed, empty or refused; the library's exceptions pass through.
class DocumentReader {
public:
  /// Far beyond the protocol's documents (3). Nothing recurses, so the stack sets no limit; the
  /// library keeps some 150 bytes for each level that was ever open, for three of the document.
  static constexpr std::size_t kMaximumDepth = 10'000;
  /// Nested fields are read once for each element around them, which must not make much of little:
  /// for each byte of the document so many bytes of fields are read, each field counted as its
  /// texts, kFieldCost and the number of elements in it. Without nesting a document costs less than
  /// that. In any case kMinReadBudget are read.
  static constexpr std::size_t kMaxReadPerByte = 8;
  static constexpr std::size_t kFieldCost = 64;
  static constexpr std::size_t kMinReadBudget = std::size_t{1024} * 1024;

  /// Reads `text` up to its first NUL, here and now: it need not outlive the call.
  explicit DocumentReader(const std::string& text,
                          const Vocabulary& vocabulary = protocolVocabulary());
  DocumentReader(const DocumentReader&) = delete;
  DocumentReader& operator=(const DocumentReader&) = delete;
  ~DocumentReader();

  /// All elements of that name in the document, the root element among them.
  Elements elements(const XMLCh* name) const;

  struct WithFields {
    const xercesc::DOMElement* element;
    std::span<const xercesc::DOMElement* const> fields; ///< below it, until the next such call
  };
  /// The elements of that name in the document, each with the "field" elements below it. In linear
  /// time, however they are nested.
  std::vector<WithFields> elementsWithFields(const XMLCh* name);

  /// A "field" element as name, type word and value (its text content). Throws XmlFailure when the
  /// fields read so far are too much for the document.
  Field readField(const xercesc::DOMElement& element);

private:
  class Parser;

  DocumentReader(const char* text, std::size_t size, const Vocabulary& vocabulary);
  void charge(std::size_t cost);

  std::size_t readBudget_; ///< what fields may still cost
  xercesc::MemBufInputSource source_;
  std::unique_ptr<Parser> parser_;
  Elements fields_;
  std::vector<const xercesc::DOMNode*> path_; ///< these two keep their storage from field to field
  std::basic_string<XMLCh> text_;
};
