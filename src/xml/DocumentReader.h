#pragma once

#include "model/InstanceList.h"

#include <xercesc/util/XercesDefs.hpp>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace xml {

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
/// Keeps only what the vocabulary names: the elements in document order, each with the range of its
/// descendants and of its text, so that nothing has to be walked. The library's own tree would take
/// up to 56 times the memory of its document, and its time for an element's attributes is quadratic
/// in their number.
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

  /// An element that was kept; valid as long as its reader.
  struct Element {
    std::size_t name;      ///< index in the vocabulary
    std::size_t end;       ///< number of the first element behind the last one below it
    std::size_t textBegin; ///< of its text content and that of the elements below it
    std::size_t textEnd;
    std::size_t attributesBegin;
    std::size_t attributesEnd;
  };
  using Elements = std::span<const Element* const>;

  /// All elements of that name in the document, in document order.
  Elements elements(const XMLCh* name) const;
  /// Those below `scope`, at any depth.
  Elements elementsBelow(const Element& scope, const XMLCh* name) const;
  /// The attribute's value in the local code page; empty when it is missing.
  std::string attributeOf(const Element& element, const XMLCh* name) const;
  /// A "field" element as name, type word and value (its text content). Throws XmlFailure when the
  /// budget is exhausted.
  model::Field readField(const Element& element);

private:
  class Parser;

  struct Attribute {
    std::size_t name;  ///< index in the vocabulary
    std::size_t value; ///< index in values_
  };

  void charge(std::size_t cost);

  const Vocabulary& vocabulary_;
  std::size_t readBudget_ = 0; ///< remaining
  std::vector<Element> elements_;
  std::vector<Attribute> attributes_;
  std::basic_string<XMLCh> values_; ///< of the attributes, each NUL-terminated
  std::basic_string<XMLCh> text_;   ///< all kept text
  std::vector<std::vector<const Element*>> byName_;
};

} // namespace xml
