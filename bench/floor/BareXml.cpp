#include "BareXml.h"

#include <xercesc/framework/MemBufFormatTarget.hpp>

namespace bare_xml {

std::string request(const char16_t* type, const std::u16string& className,
                    const std::u16string& id) {
  xercesc::DOMImplementation* const core =
      xercesc::DOMImplementationRegistry::getDOMImplementation(u"Core");
  xercesc::DOMDocument* const document = core->createDocument(nullptr, u"request", nullptr);
  const auto append = [document](const char16_t* name, const char16_t* text) {
    xercesc::DOMElement* const element = document->createElement(name);
    document->getDocumentElement()->appendChild(element);
    element->appendChild(document->createTextNode(text));
  };
  append(u"type", type);
  append(u"class", className.c_str());
  if (!id.empty()) {
    append(u"id", id.c_str());
  }
  xercesc::MemBufFormatTarget target;
  xercesc::DOMLSOutput* const output = core->createLSOutput();
  output->setEncoding(u"UTF-8");
  output->setByteStream(&target);
  xercesc::DOMLSSerializer* const serializer = core->createLSSerializer();
  serializer->write(document, output);
  serializer->release();
  output->release();
  document->release();
  return {reinterpret_cast<const char*>(target.getRawBuffer()),
          static_cast<std::size_t>(target.getLen())};
}

Tree::Tree(std::string_view text) {
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(),
                                    "simple buffer");
  source.setCopyBufToStream(false);
  parser_.parse(source);
}

} // namespace bare_xml
