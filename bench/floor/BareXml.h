#pragma once

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <string>
#include <string_view>

/// The XML library alone: the minimal cost of the product's documents.
namespace bare_xml {

/// Starts and stops the library, as the design requires in each call that uses it.
class Library {
public:
  Library() { xercesc::XMLPlatformUtils::Initialize(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { xercesc::XMLPlatformUtils::Terminate(); }
};

/// A request document, built and written by the library. Within a Library.
std::string request(const char16_t* type, const std::u16string& className,
                    const std::u16string& id);

/// A document's tree. Within a Library.
class Tree {
public:
  explicit Tree(std::string_view text);
  const xercesc::DOMElement& root() { return *parser_.getDocument()->getDocumentElement(); }

private:
  xercesc::XercesDOMParser parser_;
};

/// Calls `use(name, type, value)` for each field below `element`, in the library's own text.
template <class Use>
void forEachField(const xercesc::DOMElement& element, const Use& use) {
  for (const xercesc::DOMElement* field = element.getFirstElementChild(); field != nullptr;
       field = field->getNextElementSibling()) {
    const xercesc::DOMNode* text = field->getFirstChild();
    use(field->getAttribute(u"name"), field->getAttribute(u"type"),
        text != nullptr ? text->getNodeValue() : u"");
  }
}

} // namespace bare_xml
