// Any text as a device event, read by both strategies' adapters.

#include "Fuzzing.h"
#include "PlainDocument.h"
#include "adapter/UPOSXMLAdapter.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "xml/XmlText.h"

#include <algorithm>
#include <cstring>
#include <string>

using fuzzing::PlainDocument;
using fuzzing::require;
using model::DeviceEvent;
using xml::narrow;

namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return 'A' <= c && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

/// The event by the proxy strategy's rules, put as plainly as they can be, and what its fields
/// cost.
DeviceEvent plainEvent(const PlainDocument& document, std::size_t& cost) {
  DeviceEvent event;
  bool keep = false;
  const auto events =
      document.acceptable() ? document.elements(u"event") : std::vector<PlainDocument::Element*>();
  if (!events.empty()) {
    PlainDocument::Element& first = *events.front();
    event.type = narrow(first.getAttribute(u"type"));
    event.className = narrow(first.getAttribute(u"classname"));
    event.modifyInstanceCode = narrow(first.getAttribute(u"modifyInstanceCode"));
    event.provider = narrow(first.getAttribute(u"provider"));
    const bool isScannerOrScale = event.className.find("Scanner") != std::string::npos ||
                                  event.className.find("Scale") != std::string::npos;
    for (PlainDocument::Element* element : PlainDocument::elementsBelow(first, u"field")) {
      event.fields.push_back(PlainDocument::field(*element));
      cost += PlainDocument::costOf(*element);
      const std::string name = lowered(event.fields.back()[0]);
      const std::string& value = event.fields.back()[2];
      if (name == "deviceid") {
        event.deviceId = value;
      } else if (name == "manufacturername") {
        keep =
            keep || value == "Veltran" || value == "ORVEX" || (isScannerOrScale && value == "OEM");
      }
    }
  }
  if (!keep) {
    event.type = "NA";
    event.className = "NA";
  }
  return event;
}

bool sameCommonPart(const DeviceEvent& left, const DeviceEvent& right) {
  return left.deviceId == right.deviceId && left.type == right.type &&
         left.className == right.className && left.modifyInstanceCode == right.modifyInstanceCode;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PlainDocument::startLibrary();
  const std::string text(fuzzing::textOf(data, size));
  const std::size_t filesBefore = PlainDocument::filesAskedFor();
  UPOSXMLAdapter adapter;
  com::orvex::ProxyImpXmlAdapter proxy;
  const DeviceEvent event = adapter.fromXMLEvent(text);
  const DeviceEvent proxied = proxy.fromXMLEvent(text);
  require(PlainDocument::filesAskedFor() == filesBefore, "an event opens nothing");

  require(event.provider.empty() && event.fields.empty(),
          "the adapter strategy keeps no provider and no fields");
  require(sameCommonPart(event, proxied), "both adapters read the same event");
  std::size_t cost = 0;
  const DeviceEvent expected = plainEvent(PlainDocument(text), cost);
  if (PlainDocument::isTooMuch(cost, std::strlen(text.c_str()))) {
    require(proxied.fields.size() < expected.fields.size(), "no event repeats itself too often");
    return 0;
  }
  require(sameCommonPart(event, expected), "the event is the document's");
  require(proxied.provider == expected.provider && proxied.fields == expected.fields,
          "the proxy strategy keeps the provider and all fields");
  return 0;
}
