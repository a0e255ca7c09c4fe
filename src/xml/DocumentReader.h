#pragma once

#include "strategy/InstanceList.h"

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

/// A "field" element as name, type word and value (its text content).
Field fieldOf(const xercesc::DOMElement& element);

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
  /// Ample for the protocol's documents (3). The library's text look-up recurses, and the fields of
  /// nested instances are read once for each of them.
  static constexpr std::size_t kMaximumDepth = 64;
  /// Nested fields are read once for each element around them, which must not make much of little:
  /// for each byte of the document so many bytes of fields are read, each field counted as its
  /// texts and kFieldCost. Without nesting a document costs less than that.
  static constexpr std::size_t kMostReadPerByte = 8;
  static constexpr std::size_t kFieldCost = 64;

  /// Reads `text` up to its first NUL, here and now: it need not outlive the call.
  explicit DocumentReader(const std::string& text,
                          const Vocabulary& vocabulary = protocolVocabulary());
  DocumentReader(const DocumentReader&) = delete;
  DocumentReader& operator=(const DocumentReader&) = delete;
  ~DocumentReader();

  /// All elements of that name in the document, the root element among them.
  Elements elements(const XMLCh* name) const;

  /// One of the document's "field" elements, see fieldOf. Throws XmlFailure when the fields read so
  /// far are too much for the document.
  Field readField(const xercesc::DOMElement& element);

private:
  class Parser;

  DocumentReader(const char* text, std::size_t size, const Vocabulary& vocabulary);

  std::size_t mayRead_; ///< what fields may still cost
  xercesc::MemBufInputSource source_;
  std::unique_ptr<Parser> parser_;
};
