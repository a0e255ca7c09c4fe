// Any text as the device server's answer to a request.

#include "Fuzzing.h"
#include "PlainDocument.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/XmlText.h"

#include <algorithm>
#include <cstring>
#include <string>

using fuzzing::PlainDocument;
using fuzzing::require;
using model::Field;
using model::Fields;
using model::InstanceList;
using xml::narrow;

namespace {

constexpr std::uint32_t kUnreadable = 0xFFFFFFFF;

bool keeps(const Field& field, bool isScannerOrScale) {
  std::string name = field[0];
  std::transform(name.begin(), name.end(), name.begin(),
                 [](char c) { return 'A' <= c && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return name == "manufacturername" &&
         (field[2] == "Veltran" || field[2] == "ORVEX" || (field[2] == "OEM" && isScannerOrScale));
}

/// The answer's devices by the rules, put as plainly as they can be, and what their fields cost.
InstanceList plainInstances(const PlainDocument& document, std::size_t& cost) {
  InstanceList kept;
  Fields pending;
  for (PlainDocument::Element* instance : document.elements(u"instance")) {
    const std::string className = narrow(instance->getAttribute(u"name"));
    const bool isScannerOrScale = className.find("UPOS_Scanner") != std::string::npos ||
                                  className.find("UPOS_Scale") != std::string::npos;
    bool keep = false;
    for (PlainDocument::Element* field : PlainDocument::elementsBelow(*instance, u"field")) {
      pending.push_back(PlainDocument::field(*field));
      cost += PlainDocument::costOf(*field);
      keep = keep || keeps(pending.back(), isScannerOrScale);
    }
    if (keep) {
      kept.emplace_back(pending);
      pending.clear();
    }
  }
  return kept;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PlainDocument::startLibrary();
  const std::string text(fuzzing::textOf(data, size));
  const std::size_t filesBefore = PlainDocument::filesAskedFor();
  UPOSXMLAdapter adapter;
  const std::uint32_t status = adapter.fromXML(text);
  const InstanceList instances = adapter.getInstances();
  require(PlainDocument::filesAskedFor() == filesBefore, "an answer opens nothing");

  const PlainDocument plain(text);
  if (!plain.acceptable()) {
    require(status == kUnreadable && instances.empty(), "nothing comes from an unreadable answer");
    return 0;
  }
  if (!plain.elements(u"error").empty()) {
    require(status == 1 && instances.empty(), "nothing comes from an error answer");
    return 0;
  }
  std::size_t cost = 0;
  const InstanceList expected = plainInstances(plain, cost);
  if (PlainDocument::isTooMuch(cost, std::strlen(text.c_str()))) {
    require(status == kUnreadable, "an answer that repeats itself too often is unreadable");
    return 0;
  }
  require(status == 0, "any other answer is read");
  require(instances == expected, "the instances are those of the document");
  return 0;
}
