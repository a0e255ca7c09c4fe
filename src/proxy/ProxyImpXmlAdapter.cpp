#include "proxy/ProxyImpXmlAdapter.h"

#include "model/RequestVocabulary.h"
#include "proxy/CIMContainer.h"
#include "proxy/Poller.h"
#include "proxy/SendToClients.h"
#include "trace/UPOSLog.h"
#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"

#include <memory>
#include <utility>
#include <vector>

using model::DeviceEvent;
using model::Field;
using model::Fields;
using model::Instance;
using proxy::CIMContainer;
using proxy::CIMDevice;
using proxy::sendToClients;
using trace::UPOSLog;
using xml::DocumentReader;
using xml::XmlLibrary;

namespace com::orvex {

namespace {

constexpr const char* kUpdateRequest = "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
                                       "<request><type>updateInstances</type></request>";

/// Shares the cached device's fields.
Instance instanceOf(const CIMContainer::Reference& device) {
  return Instance(std::shared_ptr<const Fields>(device, &device->fields()));
}

void readProviderAndFields(const std::string& message, DeviceEvent& event) {
  DocumentReader document(message);
  const DocumentReader::Elements events = document.elements(u"event");
  if (events.empty()) {
    return;
  }
  const DocumentReader::Element& first = *events.front();
  event.provider = document.attributeOf(first, u"provider");
  const DocumentReader::Elements fields = document.elementsBelow(first, u"field");
  UPOSLog::trace("<<ProxyImpXmlAdapter>>     provider=%s fieldlist_length=%d", event.provider,
                 static_cast<int>(fields.size()));
  for (const DocumentReader::Element* element : fields) {
    Field field = document.readField(*element);
    UPOSLog::trace("<<ProxyImpXmlAdapter>>         name=%s type=%s value=%s", field[0], field[1],
                   field[2]);
    event.fields.push_back(std::move(field));
  }
}

} // namespace

std::uint32_t ProxyImpXmlAdapter::toXML(std::string className, std::string type, std::string cmd,
                                        std::string id, std::string& out) {
  out = kUpdateRequest;
  UPOSLog::trace("<<ProxyImpXmlAdapter>> toXML className=%s type=%s cmd=%s id=%s", className, type,
                 cmd, id);
  updateInstances(className, cmd, id);
  UPOSLog::trace("<<ProxyImpXmlAdapter>> toXML className=%s type=%s cmd=%s id=%s returning '%s'",
                 className, type, cmd, id, out);
  return 0;
}

void ProxyImpXmlAdapter::updateInstances(const std::string& className, const std::string& cmd,
                                         const std::string& id) {
  const CIMContainer& cache = CIMContainer::getInstance();
  const auto traceSize = [&](std::size_t size) {
    UPOSLog::trace("<<ProxyImpXmlAdapter>> updateInstances className=%s id=%s device list size=%d",
                   className, id, static_cast<int>(size));
  };
  if (cmd == request_vocabulary::kGetInstance) {
    const CIMContainer::Selection selection = cache.select(className, id);
    traceSize(selection.count);
    instances_.clear();
    if (selection.device != nullptr) {
      instances_.push_back(instanceOf(selection.device));
    }
    return;
  }
  const std::vector<CIMContainer::Reference> devices = cache.getInstances(className);
  traceSize(devices.size());
  instances_.clear();
  instances_.reserve(devices.size());
  for (const CIMContainer::Reference& device : devices) {
    instances_.push_back(instanceOf(device));
  }
}

std::uint32_t ProxyImpXmlAdapter::fromXML(std::string) {
  return 0;
}

std::string ProxyImpXmlAdapter::sendRequest(std::string request) {
  UPOSLog::trace("<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=%d",
                 Poller::instance().isPollingTime());
  // By design called twice: the traced call starts a new period, so a request is sent only if the
  // configured frequency is 0, or if a period ends between the two calls.
  if (Poller::instance().isPollingTime()) {
    sendToClients(request);
  }
  return {};
}

DeviceEvent ProxyImpXmlAdapter::fromXMLEvent(std::string message) {
  UPOSLog::trace("<<ProxyImpXmlAdapter>> fromXMLEvent(event='%s')", message);
  DeviceEvent event = UPOSXMLAdapter::fromXMLEvent(message);
  // A second reading, outside the XML lock: no request waits for an event with many fields.
  const XmlLibrary library;
  try {
    library.require();
    readProviderAndFields(message, event);
  } catch (...) { // not traced: the first reading, as a rule, has said it
  }
  return event;
}

} // namespace com::orvex
