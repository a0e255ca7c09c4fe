#include "PlainDocument.h"

#include "Fuzzing.h"
#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLFileMgr.hpp>
#include <xercesc/util/XMLNetAccessor.hpp>
#include <xercesc/util/XMLString.hpp>

#include <algorithm>
#include <cstring>

using model::Field;
using xml::DocumentReader;
using xml::narrow;
using xml::protocolVocabulary;
using xml::XmlLibrary;

namespace fuzzing {

namespace {

using xercesc::MemoryManager;
using xercesc::XMLPlatformUtils;

std::size_t askedFor = 0;

/// Opens nothing and counts who asks.
class NoFiles : public xercesc::XMLFileMgr {
public:
  xercesc::FileHandle fileOpen(const XMLCh*, bool, MemoryManager*) override { return none(); }
  xercesc::FileHandle fileOpen(const char*, bool, MemoryManager*) override { return none(); }
  xercesc::FileHandle openStdIn(MemoryManager*) override { return none(); }
  void fileClose(xercesc::FileHandle, MemoryManager*) override {}
  void fileReset(xercesc::FileHandle, MemoryManager*) override {}
  XMLFilePos curPos(xercesc::FileHandle, MemoryManager*) override { return 0; }
  XMLFilePos fileSize(xercesc::FileHandle, MemoryManager*) override { return 0; }
  XMLSize_t fileRead(xercesc::FileHandle, XMLSize_t, XMLByte*, MemoryManager*) override {
    return 0;
  }
  void fileWrite(xercesc::FileHandle, XMLSize_t, const XMLByte*, MemoryManager*) override {}
  XMLCh* getFullPath(const XMLCh* path, MemoryManager* manager) override {
    ++askedFor;
    return xercesc::XMLString::replicate(path, manager);
  }
  XMLCh* getCurrentDirectory(MemoryManager* manager) override {
    ++askedFor;
    return xercesc::XMLString::replicate(u"/", manager);
  }
  bool isRelative(const XMLCh* path, MemoryManager*) override { return path[0] != u'/'; }

private:
  static xercesc::FileHandle none() {
    ++askedFor;
    return nullptr;
  }
};

/// Goes nowhere and counts who asks.
class NoNetwork : public xercesc::XMLNetAccessor {
public:
  const XMLCh* getId() const override { return u"none"; }
  xercesc::BinInputStream* makeNew(const xercesc::XMLURL&,
                                   const xercesc::XMLNetHTTPInfo*) override {
    ++askedFor;
    return nullptr;
  }
};

std::vector<PlainDocument::Element*> allOf(const xercesc::DOMNodeList& list) {
  std::vector<PlainDocument::Element*> elements;
  for (XMLSize_t i = 0; const xercesc::DOMNode* node = list.item(i); ++i) {
    elements.push_back(static_cast<PlainDocument::Element*>(node));
  }
  return elements;
}

} // namespace

void PlainDocument::startLibrary() {
  // Never ended: the readers' own starts and ends then nest in it and cost nothing.
  static const auto* const library = [] {
    const auto* started = new XmlLibrary;
    started->require();
    delete XMLPlatformUtils::fgFileMgr;
    XMLPlatformUtils::fgFileMgr = new NoFiles;
    delete XMLPlatformUtils::fgNetAccessor;
    XMLPlatformUtils::fgNetAccessor = new NoNetwork;
    return started;
  }();
  static_cast<void>(library);
}

std::size_t PlainDocument::filesAskedFor() {
  return askedFor;
}

PlainDocument::PlainDocument(const std::string& text) : acceptable_(parse(text)) {}

bool PlainDocument::parse(const std::string& text) {
  limits_.setEntityExpansionLimit(100);
  parser_.setSecurityManager(&limits_);
  parser_.setLoadExternalDTD(false);
  parser_.setDisableDefaultEntityResolution(true);
  try {
    parser_.parse(xercesc::MemBufInputSource(reinterpret_cast<const XMLByte*>(text.c_str()),
                                             std::strlen(text.c_str()), "plain"));
  } catch (...) { // refused in another way
    return false;
  }
  document_ = parser_.getDocument();
  return parser_.getErrorCount() == 0 && document_ != nullptr &&
         document_->getDocumentElement() != nullptr && document_->getDoctype() == nullptr;
}

std::vector<PlainDocument::Element*> PlainDocument::elements(const XMLCh* name) const {
  return allOf(*document_->getElementsByTagName(name));
}

std::vector<PlainDocument::Element*> PlainDocument::elementsBelow(Element& scope,
                                                                  const XMLCh* name) {
  return allOf(*scope.getElementsByTagName(name));
}

Field PlainDocument::field(Element& element) {
  return {narrow(element.getAttribute(u"name")), narrow(element.getAttribute(u"type")),
          narrow(element.getTextContent())};
}

std::size_t PlainDocument::costOf(Element& element) {
  std::size_t cost = DocumentReader::kFieldCost;
  for (const std::string& text : field(element)) {
    cost += text.size();
  }
  for (const XMLCh* name : protocolVocabulary().elements) {
    cost += elementsBelow(element, name).size();
  }
  return cost;
}

bool PlainDocument::isTooMuch(std::size_t cost, std::size_t documentSize) {
  return cost >
         std::max(DocumentReader::kMaxReadPerByte * documentSize, DocumentReader::kMinReadBudget);
}

} // namespace fuzzing
