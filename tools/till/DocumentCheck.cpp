#include "till/DocumentCheck.h"

#include "adapter/FrameReader.h"
#include "adapter/UPOSXMLAdapter.h"
#include "proxy/CIMContainer.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/EventSplitter.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "quillmonctl/IgnoreCase.h"
#include "till/DeviceClasses.h"
#include "till/Documents.h"
#include "till/LostCharacters.h"
#include "till/ServiceConversion.h"
#include "xml/DocumentReader.h"
#include "xml/XmlFailure.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <fmt/format.h>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/XMLException.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <deque>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>

namespace till {
namespace {

using model::DeviceEvent;
using model::Field;
using model::Instance;
using proxy::CIMContainer;
using proxy::CIMDevice;
using proxy::CIMDeviceUtil;
using proxy::EventSplitter;
using ::xml::DocumentReader;
using ::xml::XmlFailure;

using Level = Finding::Level;
using Strategy = Finding::Strategy;

constexpr std::array<std::string_view, 3> kMakers = {"Veltran", "ORVEX", "OEM"};
constexpr std::string_view kNotPublished = "NA";

std::string utf8(const std::string& local) {
  return utf8FromLocal(local);
}

/// For a message: what is too long to be read there is cut, at a character.
std::string quoted(const std::string& text) {
  constexpr std::size_t kLongest = 60;
  if (text.size() <= kLongest) {
    return fmt::format("\"{}\"", text);
  }
  std::size_t end = kLongest;
  while ((static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
    --end;
  }
  return fmt::format("\"{}...\"", text.substr(0, end));
}

bool isScannerOrScale(std::string_view name, std::string_view prefix) {
  return name.find(std::string(prefix) + "Scanner") != std::string_view::npos ||
         name.find(std::string(prefix) + "Scale") != std::string_view::npos;
}

/// Why the manufacturer filter discards a device with these makers. `where` names the text that
/// decides about OEM.
std::string whyDiscarded(const std::vector<std::string>& makers, const std::string& where,
                         const std::string& className, bool scannerOrScale) {
  if (makers.empty()) {
    return fmt::format("it has no field {}", kMakerField);
  }
  const std::string& maker = makers.back();
  if (maker == "OEM" && !scannerOrScale) {
    return fmt::format("OEM is kept for scanners and scales only, and the {} is {}", where,
                       quoted(className));
  }
  const std::string trimmed = [&] {
    const std::size_t begin = maker.find_first_not_of(" \t\r\n");
    return begin == std::string::npos
               ? std::string()
               : maker.substr(begin, maker.find_last_not_of(" \t\r\n") - begin + 1);
  }();
  for (const std::string_view known : kMakers) {
    if (trimmed == known) {
      return fmt::format("{} is {} with blanks or line ends around it, which belong to the value",
                         kMakerField, quoted(maker));
    }
    if (ctl::equalsIgnoreCase(trimmed, known)) {
      return fmt::format("{} is {}, and upper and lower case count: {}", kMakerField, quoted(maker),
                         known);
    }
  }
  return fmt::format("{} is {}, which is none of Veltran, ORVEX and OEM", kMakerField,
                     quoted(maker));
}

/// A field as it stands in the document, and as the service reads it.
struct ReadField {
  std::string name; ///< UTF-8
  Field field;      ///< local code page
};

/// Why WMI does not take a field as it is meant, and the code for that.
std::pair<const char*, std::string> whyNotTaken(const Field& field, std::string_view property,
                                                const ConvertedValue& converted) {
  const std::string& word = field[1];
  const std::string value = quoted(utf8(field[2]));
  if (converted.type == property) {
    return {"negative", fmt::format("{} goes into a property without a sign", value)};
  }
  const bool isNumber = word == "uint32" || word == "uint64";
  if ((isNumber || word == "boolean") && converted.type == "string") {
    return {"not-converted",
            fmt::format("{} is not converted to {} ({}): the property stays empty", value, word,
                        isNumber ? "a decimal number, at most 2147483647" : "true or false")};
  }
  return {"type-does-not-fit",
          fmt::format("the type {} {} the property, whose type is {}: it stays empty",
                      quoted(utf8(word)),
                      std::ranges::find(kTypeWords, word) == kTypeWords.end()
                          ? "is no type word, and the text does not fit"
                          : "does not fit",
                      property)};
}

/// Collects what a document is found to be.
class Checker {
public:
  Checker(std::string text, DocumentReport& report) : text_(std::move(text)), report_(report) {}

  void run();

private:
  void readAnswer(DocumentReader& document);
  void readInstance(DocumentReader& document, std::size_t number,
                    const DocumentReader::Element& instance, bool kept,
                    std::vector<ReadField>& pending, std::size_t carried);
  void readEvent(DocumentReader& document);
  void readStream();
  void readCached(const DeviceEvent& event);
  void putFields(const std::vector<ReadField>& fields, std::size_t carried,
                 const std::string& className, Strategy strategy);
  static ReadField readField(DocumentReader& document, const DocumentReader::Element& element);
  void addLostCharacters();
  void unreadable(const std::string& message);
  void add(const char* code, std::string text, Strategy strategy = Strategy::Both,
           const std::string& field = {}, Level level = Level::Problem);

  const std::string text_;
  DocumentReport& report_;
};

void Checker::add(const char* code, std::string text, Strategy strategy, const std::string& field,
                  Level level) {
  report_.hasProblems = report_.hasProblems || level == Level::Problem;
  if (report_.findings.size() == DocumentReport::kMostFindings) {
    ++report_.furtherFindings;
    return;
  }
  report_.findings.push_back({level, strategy, code, 0, {}, field, std::move(text)});
}

void Checker::run() {
  report_.codePage = localCodePage();
  if (const std::size_t nul = text_.find('\0'); nul != std::string::npos) {
    add("nul", fmt::format("a NUL byte is at offset {}: nothing behind it is read", nul));
  }
  const ::xml::XmlLibrary library;
  if (!library.started()) {
    throw std::runtime_error(library.failure());
  }
  try {
    DocumentReader document(text_);
    const bool isAnswer = !document.elements(u"instance").empty() ||
                          !document.elements(u"error").empty() ||
                          document.elements(u"event").empty();
    if (isAnswer) {
      readAnswer(document);
    } else {
      readEvent(document);
    }
    addLostCharacters();
  } catch (const XmlFailure& failure) {
    unreadable(utf8(std::string(failure.what())));
  } catch (const xercesc::OutOfMemoryException&) {
    throw std::bad_alloc();
  } catch (const xercesc::XMLException& failure) {
    unreadable(utf8(::xml::narrow(failure.getMessage())));
  }
}

void Checker::unreadable(const std::string& message) {
  report_.kind = DocumentReport::Kind::Unreadable;
  report_.status = static_cast<std::int32_t>(UPOSXMLAdapter().fromXML(text_));
  report_.instances.clear();
  report_.event.reset();
  report_.eventVerdicts.clear();
  report_.message = message;
  // The reader puts the place behind the library's words: " (line 2, column 15)".
  constexpr std::string_view kLine = " (line ";
  constexpr std::string_view kColumn = ", column ";
  const std::size_t line = message.rfind(kLine);
  const std::size_t column = line == std::string::npos ? line : message.find(kColumn, line);
  if (column != std::string::npos) {
    const char* const end = message.data() + message.size();
    std::from_chars(message.data() + line + kLine.size(), end, report_.line);
    std::from_chars(message.data() + column + kColumn.size(), end, report_.column);
    report_.message.resize(line);
  }
  std::string text = "as an answer it fails the client's request, as an event it is dropped, and "
                     "only the trace log shows it";
  if (text_.find("<!DOCTYPE") != std::string::npos) {
    text += "; no document type declaration is accepted";
  }
  add("unreadable", text);
}

ReadField Checker::readField(DocumentReader& document, const DocumentReader::Element& element) {
  Field field = document.readField(element);
  std::string name = utf8(field[0]);
  return {std::move(name), std::move(field)};
}

/// A character that the local code page lacks reaches no client.
void Checker::addLostCharacters() {
  for (const LostCharacters& each : findLostCharacters(text_)) {
    add("characters-lost",
        fmt::format("{} {} has characters that code page {} lacks: {} arrives", each.what,
                    quoted(each.original), report_.codePage, quoted(each.arrived)),
        Strategy::Both, each.field);
    if (report_.furtherFindings != 0) {
      continue;
    }
    Finding& finding = report_.findings.back();
    finding.instance = each.instance;
    if (report_.event) {
      finding.device = report_.event->device;
    } else if (each.instance != 0 && each.instance <= report_.instances.size()) {
      finding.device = report_.instances[each.instance - 1].device;
    }
  }
}

// -- answers

void Checker::readAnswer(DocumentReader& document) {
  report_.kind = DocumentReport::Kind::Answer;
  std::deque<std::size_t> keptSizes;
  {
    UPOSXMLAdapter adapter;
    report_.status = static_cast<std::int32_t>(adapter.fromXML(text_));
    for (const Instance& instance : adapter.getInstances()) {
      keptSizes.push_back(instance.size());
    }
  }
  if (*report_.status == 1) {
    add("error-answer", "an element \"error\" makes it an error answer: the client's request fails",
        Strategy::Adapter, {}, Level::Note);
    return;
  }
  if (!document.elements(u"event").empty()) {
    add("event-in-answer", "the element \"event\" is not read: this counts as an answer");
  }

  // The service puts the fields of discarded instances in front of the next one that is kept. So an
  // instance is kept if it completes the number of fields that the next kept one has.
  std::vector<ReadField> pending;
  std::size_t number = 0;
  for (const DocumentReader::Element* instance : document.elements(u"instance")) {
    ++number;
    const std::size_t carried = pending.size();
    const std::size_t own = document.elementsBelow(*instance, u"field").size();
    const bool kept = own != 0 && !keptSizes.empty() && carried + own == keptSizes.front();
    readInstance(document, number, *instance, kept, pending, carried);
    if (kept) {
      keptSizes.pop_front();
      pending.clear();
    }
  }
  if (*report_.status != 0) { // and not for the document's sake
    throw std::bad_alloc();
  }
}

void Checker::readInstance(DocumentReader& document, std::size_t number,
                           const DocumentReader::Element& instance, bool kept,
                           std::vector<ReadField>& pending, std::size_t carried) {
  const std::size_t firstFinding = report_.findings.size();
  InstanceVerdict verdict;
  verdict.className = utf8(document.attributeOf(instance, u"name"));
  verdict.kept = kept;
  std::vector<std::string> makers;
  for (const DocumentReader::Element* element : document.elementsBelow(instance, u"field")) {
    const ReadField& read = pending.emplace_back(readField(document, *element));
    if (ctl::equalsIgnoreCase(read.field[0], kMakerField)) {
      makers.push_back(utf8(read.field[2]));
    }
    if (ctl::equalsIgnoreCase(read.field[0], kDeviceIdField)) {
      verdict.device = utf8(read.field[2]);
    }
  }
  if (kept) {
    if (propertiesOf(verdict.className) == nullptr) {
      add("unknown-class",
          fmt::format("{} is no class of quillmon.mof: its fields are looked at as those of {}",
                      quoted(verdict.className), kEveryDevice),
          Strategy::Adapter);
    }
    putFields(pending, carried, verdict.className, Strategy::Adapter);
    if (verdict.device.empty()) {
      add("no-device-id", fmt::format("it has no {}, the key", kDeviceIdField), Strategy::Adapter);
    }
  } else {
    add("discarded",
        "discarded: " + whyDiscarded(makers, "instance's name", verdict.className,
                                     isScannerOrScale(verdict.className, "UPOS_")),
        Strategy::Adapter);
  }
  for (std::size_t i = firstFinding; i < report_.findings.size(); ++i) {
    report_.findings[i].instance = number;
    report_.findings[i].device = verdict.device;
  }
  report_.instances.push_back(std::move(verdict));
}

// -- fields

/// As the provider does: each field in turn; one that WMI refuses leaves the property as it was.
void Checker::putFields(const std::vector<ReadField>& fields, std::size_t carried,
                        const std::string& className, Strategy strategy) {
  std::string knownClass = className;
  const PropertyTypeTable* types = propertiesOf(className);
  if (types == nullptr) {
    knownClass = fmt::format("{}{}", kEveryDevice,
                             strategy == Strategy::Proxy ? ", the only class that clients find it "
                                                           "under,"
                                                         : "");
    types = propertiesOf(kEveryDevice);
  }
  struct Put {
    std::size_t index; ///< of the field that counts
    std::size_t own;   ///< how many of the instance's own were put
  };
  provider::PropertyTypes typeWords;
  typeWords.fill();
  std::map<std::string, Put> properties;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const bool isOwn = i >= carried;
    const auto& [name, field] = fields[i];
    const auto type = types->find(lowered(field[0]));
    if (type == types->end()) {
      if (isOwn) {
        add("no-property",
            fmt::format("{} has no such property: the field is left out", knownClass), strategy,
            name);
      }
      continue;
    }
    const ConvertedValue converted = convertAsService(typeWords.typeOf(field[1]), field[2]);
    if (converted.type == type->second) {
      Put& put = properties.try_emplace(type->first, Put{i, 0}).first->second;
      put.index = i;
      put.own += isOwn ? 1 : 0;
    }
    if (isOwn && (converted.type != type->second || converted.isNegative)) {
      const auto [code, text] = whyNotTaken(field, type->second, converted);
      add(code, text, strategy, name);
    }
  }
  for (const auto& [name, put] : properties) {
    const auto& [shownName, field] = fields[put.index];
    if (put.index < carried) {
      add("carried-over",
          fmt::format("{} is carried over from a discarded instance before this one, which has no "
                      "such field that WMI takes",
                      quoted(utf8(field[2]))),
          strategy, shownName);
    } else if (put.own > 1) {
      add("repeated-field", fmt::format("the field comes {} times: the last one counts", put.own),
          strategy, shownName);
    }
  }
}

// -- events

void Checker::readEvent(DocumentReader& document) {
  report_.kind = DocumentReport::Kind::Event;
  const DocumentReader::Elements events = document.elements(u"event");
  const DocumentReader::Element& first = *events.front();
  const auto attribute = [&](const XMLCh* name) { return utf8(document.attributeOf(first, name)); };
  const DeviceEvent event = UPOSXMLAdapter().fromXMLEvent(text_);

  EventTexts texts{attribute(u"type"), attribute(u"classname"), utf8(event.deviceId),
                   attribute(u"modifyInstanceCode")};
  std::vector<std::string> makers;
  for (const DocumentReader::Element* element : document.elementsBelow(first, u"field")) {
    const ReadField read = readField(document, *element);
    if (ctl::equalsIgnoreCase(read.field[0], kMakerField)) {
      makers.push_back(utf8(read.field[2]));
    }
  }
  if (events.size() > 1) {
    add("further-events",
        fmt::format("it holds {} elements \"event\": only the first one is read", events.size()));
  }
  if (event.type == kNotPublished) {
    add("discarded", texts.type == kNotPublished && event.className != kNotPublished
                         ? "discarded: the type \"NA\" means \"do not publish\""
                         : "discarded: " + whyDiscarded(makers, "classname", texts.classname,
                                                        isScannerOrScale(texts.classname, "")));
  } else if (texts.type != "addInstance" && texts.type != "modifyInstance" &&
             texts.type != "delInstance") {
    add("event-type", fmt::format("{} is none of addInstance, modifyInstance and delInstance: it "
                                  "is published as it stands and changes nothing",
                                  quoted(texts.type)));
  }
  if (texts.device.empty()) {
    add("no-device-id", fmt::format("it has no {}", kDeviceIdField));
  }
  if (const std::size_t size = text_.size() + 2; size > kLongestDatagram) {
    add("datagram-too-long",
        fmt::format("with its marks it has {} bytes: a datagram of more than {} is lost", size,
                    kLongestDatagram),
        Strategy::Adapter);
  }
  report_.eventVerdicts.push_back({Strategy::Adapter, false, event.type != kNotPublished, "none"});
  report_.event = std::move(texts);
  readStream();
  for (Finding& each : report_.findings) {
    each.device = report_.event->device;
  }
}

/// What only the proxy strategy does with it.
void Checker::readStream() {
  const std::string sent = text_.substr(0, text_.find_last_not_of(" \t\r\n") + 1);
  EventSplitter splitter;
  const std::size_t documents = splitter.split(sent).size();
  if (!sent.starts_with(EventSplitter::kStartMarker)) {
    add("no-start-marker",
        fmt::format("it does not begin with {}: on a stream it comes through only if it arrives "
                    "well apart from its neighbours",
                    EventSplitter::kStartMarker),
        Strategy::Proxy);
  }
  if (documents == 0 || splitter.pendingSize() != 0) {
    add("no-end-marker",
        fmt::format("it does not end with {}: the service waits for more",
                    EventSplitter::kEndMarker),
        Strategy::Proxy);
  } else if (documents > 1) {
    add("cut", fmt::format("the stream is cut into {} documents within it", documents),
        Strategy::Proxy);
  }
  const DeviceEvent event = com::orvex::ProxyImpXmlAdapter().fromXMLEvent(text_);
  for (const bool isCached : {false, true}) {
    CIMContainer cache;
    if (isCached) {
      DeviceEvent added = event;
      added.type = "addInstance";
      CIMDeviceUtil::processEvent(added, cache);
    }
    const CIMContainer::Reference before = cache.find(CIMDevice(event));
    const DeviceEvent processed = CIMDeviceUtil::processEvent(event, cache);
    const CIMContainer::Reference after = cache.find(CIMDevice(event));
    report_.eventVerdicts.push_back({Strategy::Proxy, isCached, processed.type != kNotPublished,
                                     before == after     ? "none"
                                     : before == nullptr ? "stored"
                                     : after == nullptr  ? "removed"
                                                         : "changed"});
  }
  if (event.type == "addInstance" || event.type == "modifyInstance") {
    readCached(event);
  }
}

/// The fields on their way through the cache to WMI.
void Checker::readCached(const DeviceEvent& event) {
  const std::string classname = utf8(event.className);
  if (propertiesOf(classname) == nullptr) {
    add("not-listed-by-class",
        fmt::format("clients find the device under {} only: the classname {} is no WMI class "
                    "(UPOS_Scanner and its like)",
                    kEveryDevice, quoted(classname)),
        Strategy::Proxy, {}, Level::Note);
  }
  const CIMDevice device(event);
  std::vector<ReadField> stored;
  for (const Field& field : event.fields) {
    const auto found = std::ranges::find_if(device.fields(),
                                            [&](const Field& each) { return each[0] == field[0]; });
    const std::string name = utf8(field[0]);
    const std::string value = utf8(field[2]);
    if (found == device.fields().end()) {
      add("not-stored",
          fmt::format("the cache takes no type {}: the property stays empty",
                      quoted(utf8(field[1]))),
          Strategy::Proxy, name);
    } else if (field[1] == "boolean" && (*found)[2] != lowered(field[2])) {
      add("changed-value",
          fmt::format("{} counts as {}: only true and TRUE are true", quoted(value), (*found)[2]),
          Strategy::Proxy, name);
    } else if ((*found)[1].starts_with("uint") && (*found)[2] != field[2]) {
      add("changed-value", fmt::format("{} is stored as {}", quoted(value), (*found)[2]),
          Strategy::Proxy, name);
    }
  }
  for (const Field& field : device.fields()) {
    stored.push_back({utf8(field[0]), field});
  }
  putFields(stored, 0, classname, Strategy::Proxy);
}

} // namespace

Unframed unframe(std::string_view bytes) {
  Unframed result;
  result.before = std::min(bytes.find(adapter::kFrameBegin), bytes.size());
  result.started = result.before != bytes.size();
  adapter::FrameArea area;
  adapter::ByteBuffer message(1024, 1.5F);
  adapter::readFrame(
      area, message,
      [&](char* to, int size) {
        const std::size_t count = std::min(bytes.size(), static_cast<std::size_t>(size));
        std::memcpy(to, bytes.data(), count);
        bytes.remove_prefix(count);
        return static_cast<int>(count);
      },
      [](adapter::ByteBuffer&) {}, [&](adapter::ByteBuffer&) { result.ended = true; });
  result.message.assign(message.text(), message.size());
  return result;
}

DocumentReport checkDocument(std::string_view bytes) {
  DocumentReport report;
  report.bytes = bytes.size();
  std::string text;
  if (bytes.starts_with(adapter::kFrameBegin)) {
    Unframed message = unframe(bytes);
    if (!message.ended) {
      report.hasProblems = true;
      report.findings.push_back({Level::Problem,
                                 Strategy::Adapter,
                                 "no-frame-end",
                                 0,
                                 {},
                                 {},
                                 "the message has no end mark (BS): the service waits for it until "
                                 "the connection ends"});
    }
    text = std::move(message.message);
  } else {
    text = bytes;
  }
  Checker(std::move(text), report).run();
  return report;
}

} // namespace till
