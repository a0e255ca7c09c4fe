#pragma once

#include "model/InstanceList.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/SecurityManager.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace fuzzing {

/// A document as the XML library reads it by itself: its parser with its default settings and its
/// own search by tag name. What the service's readers make of a document is compared with this.
///
/// The library stays started for the whole run, with a file manager that opens nothing: see
/// `filesAskedFor`.
class PlainDocument {
public:
  explicit PlainDocument(const std::string& text);

  /// Well-formed and without a document type.
  [[nodiscard]] bool acceptable() const { return acceptable_; }

  using Element = const xercesc::DOMElement;
  [[nodiscard]] std::vector<Element*> elements(const XMLCh* name) const;
  static std::vector<Element*> elementsBelow(Element& scope, const XMLCh* name);

  /// An element's attributes "name" and "type" and its text.
  static model::Field field(Element& element);
  /// What a field costs the service's readers, and whether they refuse so much in a document of
  /// that size.
  static std::size_t costOf(Element& element);
  static bool isTooMuch(std::size_t cost, std::size_t documentSize);

  /// Starts the library, once; before the first document, and before the first reader.
  static void startLibrary();
  /// How often the library asked for a file or for the network since it was started.
  static std::size_t filesAskedFor();

private:
  bool parse(const std::string& text);

  xercesc::SecurityManager limits_;
  xercesc::XercesDOMParser parser_;
  const xercesc::DOMDocument* document_ = nullptr; // the parser's
  bool acceptable_;
};

} // namespace fuzzing
