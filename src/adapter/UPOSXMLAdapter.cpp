#include "adapter/UPOSXMLAdapter.h"

#include "adapter/RequestSocket.h"
#include "trace/UPOSLog.h"
#include "xml/DocumentReader.h"
#include "xml/ReadBoundary.h"
#include "xml/RequestDocument.h"
#include "xml/XmlLibrary.h"

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/dom/DOMImplementationRegistry.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <string_view>
#include <utility>

using adapter::exchangeRequest;
using model::DeviceEvent;
using model::Field;
using trace::UPOSLog;
using xml::buildRequestDocument;
using xml::CoreUnavailable;
using xml::DocumentReader;
using xml::readGuarded;
using xml::XmlLibrary;
using xml::xmlLock;

namespace {

constexpr std::uint32_t kDomError = 2;
constexpr std::uint32_t kOtherFailure = 3;
constexpr std::uint32_t kNoCore = 4;
constexpr std::uint32_t kOutOfMemory = 5;

constexpr std::uint32_t kRead = 0;
constexpr std::uint32_t kErrorAnswer = 1;
constexpr std::uint32_t kUnreadable = 0xFFFFFFFF;

/// Sticky for the whole process: a success after a failure still returns the failure's status.
/// Guarded by the XML lock.
constinit std::uint32_t buildStatus = 0;

void build(const XmlLibrary& library, const std::string& className, const std::string& type,
           const std::string& cmd, const std::string& id, std::string& out) noexcept {
  try {
    library.require();
    out = buildRequestDocument(className, type, cmd, id);
  } catch (const CoreUnavailable&) {
    std::cerr << "Requested implementation is not supported\n";
    buildStatus = kNoCore;
  } catch (const xercesc::OutOfMemoryException&) {
    std::cerr << "OutOfMemoryException\n";
    buildStatus = kOutOfMemory;
  } catch (const xercesc::DOMException& exception) {
    std::cerr << "DOMException code is:  " << static_cast<int>(exception.code) << '\n';
    buildStatus = kDomError;
  } catch (...) {
    std::cerr << "An error occurred creating the document\n";
    buildStatus = kOtherFailure;
  }
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

char lowered(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, lowered, lowered);
}

/// Devices of our own manufacturers are kept; scanners and scales of OEM manufacturers as well.
bool isKeptManufacturer(std::string_view maker, bool isScannerOrScale) {
  return maker == "Veltran" || maker == "ORVEX" || (isScannerOrScale && maker == "OEM");
}

void readEvent(const std::string& message, DeviceEvent& event, bool& discard) {
  DocumentReader document(message);
  const DocumentReader::Elements events = document.elements(u"event");
  if (events.empty()) {
    return;
  }
  const DocumentReader::Element& first = *events.front();
  event.type = document.attributeOf(first, u"type");
  event.className = document.attributeOf(first, u"classname");
  // An event has the short device class ("Scanner"), an answer the WMI class ("UPOS_Scanner").
  const bool isScannerOrScale =
      contains(event.className, "Scanner") || contains(event.className, "Scale");
  event.modifyInstanceCode = document.attributeOf(first, u"modifyInstanceCode");

  for (const DocumentReader::Element* element : document.elementsBelow(first, u"field")) {
    const Field field = document.readField(*element);
    const std::string& name = field[0];
    const std::string& value = field[2];
    if (equalsIgnoringCase(name, "DeviceID")) {
      event.deviceId = value;
    } else if (equalsIgnoringCase(name, "ManufacturerName") &&
               isKeptManufacturer(value, isScannerOrScale)) {
      discard = false;
    }
  }
}

} // namespace

std::uint32_t UPOSXMLAdapter::toXML(std::string className, std::string type, std::string cmd,
                                    std::string id, std::string& out) {
  const std::scoped_lock turn(xmlLock());
  UPOSLog::trace("<<UPOSXMLAdapter>> toXML(className='%s', type='%s', cmd='%s', id='%s')",
                 className, type, cmd, id);
  const XmlLibrary library;
  if (!library.started()) {
    std::cerr << "Error during XML4C Initialization.\n"
              << "  Exception message:" << library.failure();
  }
  build(library, className, type, cmd, id, out);
  return buildStatus;
}

std::uint32_t UPOSXMLAdapter::fromXML(std::string response) {
  const std::scoped_lock turn(xmlLock());
  const XmlLibrary library;
  std::uint32_t status = kUnreadable;
  readGuarded("<< Unknown Exception in XMLAdapter >> : ", [&] {
    library.require();
    status = readResponse(std::move(response));
  });
  return status;
}

std::uint32_t UPOSXMLAdapter::readResponse(std::string response) {
  DocumentReader document(response);
  std::string().swap(response); // frees a large answer before the list grows
  static_cast<void>(xercesc::DOMImplementationRegistry::getDOMImplementation(u"Core"));
  const DocumentReader::Elements errors = document.elements(u"error");
  UPOSLog::trace("<<UPOSXMLAdapter>> instanceList(error) length: %d",
                 static_cast<int>(errors.size()));
  if (!errors.empty()) {
    static_cast<void>(document.attributeOf(*errors.front(), u"name"));
    return kErrorAnswer;
  }
  const DocumentReader::Elements instances = document.elements(u"instance");
  UPOSLog::trace("<<UPOSXMLAdapter>> instanceList(instance) length: %d",
                 static_cast<int>(instances.size()));
  for (const DocumentReader::Element* instance : instances) {
    const std::string className = document.attributeOf(*instance, u"name");
    const bool isScannerOrScale =
        contains(className, "UPOS_Scanner") || contains(className, "UPOS_Scale");
    const DocumentReader::Elements fields = document.elementsBelow(*instance, u"field");
    bool keep = false;
    if (pendingFields_.empty()) { // else the list doubles: linear over many discarded devices
      pendingFields_.reserve(fields.size());
    }
    for (std::size_t number = 0; number < fields.size(); ++number) {
      const Field& field = pendingFields_.emplace_back(document.readField(*fields[number]));
      const std::string& name = field[0];
      const std::string& fieldType = field[1];
      const std::string& value = field[2];
      if (equalsIgnoringCase(name, "ManufacturerName") &&
          isKeptManufacturer(value, isScannerOrScale)) {
        keep = true;
      }
      UPOSLog::trace(
          "<<UPOSXMLAdapter>> field %d name='%s', type='%s', value='%s', dev='%s' add=%d",
          static_cast<int>(number), name, fieldType, value, value, keep ? 1 : 0);
    }
    if (keep) {
      instances_.emplace_back(std::exchange(pendingFields_, {}));
    } else {
      // By design the fields of a discarded device stay pending and are put in front of those of
      // the next kept instance.
      UPOSLog::trace("<<fromXML>> Discarding NON-ORVEX device");
    }
  }
  return kRead;
}

std::string UPOSXMLAdapter::sendRequest(std::string request) {
  return exchangeRequest(request);
}

DeviceEvent UPOSXMLAdapter::fromXMLEvent(std::string message) {
  const std::scoped_lock turn(xmlLock());
  DeviceEvent event;
  bool discard = true;
  {
    const XmlLibrary library;
    readGuarded("<< Unknown Exception in XMLAdapter::fromXMLEvent() >> : ", [&] {
      library.require();
      readEvent(message, event, discard);
    });
  }
  if (discard) {
    event.className = "NA";
    event.type = "NA";
  }
  return event;
}
