#pragma once

#include "model/InstanceList.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace xml {

using Elements = std::vector<const xercesc::DOMElement*>;

/// All elements of that name below `scope`, at any depth, in document order. Linear time, unlike
/// the library's getElementsByTagName, whose table of lists does not grow with their number.
Elements elementsBelow(const xercesc::DOMElement& scope, const XMLCh* name);

/// The attribute's value in the local code page; empty when it is missing.
std::string attributeOf(const xercesc::DOMElement& element, const XMLCh* name);

/// The names that a reader keeps from a document.
struct Vocabulary {
  std::span<const XMLCh* const> elements;
  std::span<const XMLCh* const> texts; ///< the elements whose text content is kept
  std::span<const XMLCh* const> attributes;
};

/// The vocabulary of answers and events.
const Vocabulary& protocolVocabulary() noexcept;

/// Parses one document of a peer.
///
/// Owner: one call, on its stack, within an XmlLibrary session. Threads: one.
/// Errors: the constructor throws XmlFailure with the library's message, line and column if the
/// document is empty, not well-formed or refused; the library's exceptions pass through.
///
/// Safety: opens nothing outside the text. Refuses document type declarations (so the only entities
/// are the five predefined ones) and elements nested more deeply than kMaximumDepth.
///
/// Keeps only what the vocabulary names, and the root. An element that is not kept is replaced by
/// its kept descendants and their text. A complete tree would take up to 56 times the memory of its
/// document, and the library's time for an element's attributes is quadratic in their number.
class DocumentReader {
public:
  /// The protocol's documents are 3 deep. Nothing recurses, so the stack sets no limit, but the
  /// library keeps about 150 bytes per level, and three bytes of a document open one.
  static constexpr std::size_t kMaximumDepth = 10'000;
  /// Limits the amplification by nested fields, which are read once per enclosing element. The
  /// budget is kMaxReadPerByte per byte of the document, and at least kMinReadBudget; a field costs
  /// the size of its texts, kFieldCost and the number of elements in it. A document without nested
  /// fields stays below the budget.
  static constexpr std::size_t kMaxReadPerByte = 8;
  static constexpr std::size_t kFieldCost = 64;
  static constexpr std::size_t kMinReadBudget = std::size_t{1024} * 1024;

  /// Parses `text` up to its first NUL. `text` need not outlive the call.
  explicit DocumentReader(const std::string& text,
                          const Vocabulary& vocabulary = protocolVocabulary());
  DocumentReader(const DocumentReader&) = delete;
  DocumentReader& operator=(const DocumentReader&) = delete;
  ~DocumentReader();

  /// All elements of that name in the document, including the root.
  Elements elements(const XMLCh* name) const;

  struct WithFields {
    const xercesc::DOMElement* element;
    std::span<const xercesc::DOMElement* const> fields; ///< valid until the next call
  };
  /// All elements of that name in the document, each with the "field" elements below it, at any
  /// depth. Linear time, regardless of nesting.
  std::vector<WithFields> elementsWithFields(const XMLCh* name);

  /// A "field" element as name, type word and value (its text content). Throws XmlFailure when the
  /// budget is exhausted.
  model::Field readField(const xercesc::DOMElement& element);

private:
  class Parser;

  DocumentReader(const char* text, std::size_t size, const Vocabulary& vocabulary);
  void charge(std::size_t cost);

  std::size_t readBudget_; ///< remaining
  xercesc::MemBufInputSource source_;
  std::unique_ptr<Parser> parser_;
  Elements fields_;
  std::vector<const xercesc::DOMNode*> path_; ///< like text_, reused for all fields
  std::basic_string<XMLCh> text_;
};

} // namespace xml
