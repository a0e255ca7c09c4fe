#include "device_server/Documents.h"

#include "device_server/Xml.h"

#include <fmt/format.h>

#include <iterator>

namespace till {
namespace {

constexpr std::string_view kAnswerDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";

void appendField(std::string& out, std::string_view name, std::string_view type,
                 std::string_view value) {
  fmt::format_to(std::back_inserter(out), R"(<field name="{}" type="{}">{}</field>)",
                 escapeXml(name), escapeXml(type), escapeXml(value));
}

std::string textOf(const XmlElement& parent, std::string_view child) {
  const XmlElement* element = parent.child(child);
  return element == nullptr ? std::string() : element->text;
}

/// Whatever has a type, of any kind.
Request readAnyRequest(std::string_view document) {
  XmlElement root;
  try {
    root = readXml(document, isXmlText(document) ? "UTF-8" : "");
  } catch (const XmlError& problem) {
    throw RequestError(fmt::format("malformed request: {}", problem.what()));
  }
  if (root.name != "request") {
    throw RequestError(
        fmt::format("malformed request: the root element is '{}', not 'request'", root.name));
  }
  Request request{textOf(root, "type"), textOf(root, "class"), textOf(root, "id")};
  if (request.type.empty()) {
    throw RequestError("malformed request: no type");
  }
  return request;
}

[[noreturn]] void refuseType(const Request& request) {
  throw RequestError(fmt::format("unknown request type '{}'", request.type));
}

} // namespace

Request readRequest(std::string_view document) {
  Request request = readAnyRequest(document);
  if (request.type != kEnumerateInstances && request.type != kGetInstance) {
    refuseType(request);
  }
  if (request.className.empty()) {
    throw RequestError(fmt::format("malformed request: {} without a class", request.type));
  }
  if (request.type == kGetInstance && request.id.empty()) {
    throw RequestError("malformed request: getInstance without an id");
  }
  return request;
}

void readUpdateRequest(std::string_view document) {
  const Request request = readAnyRequest(document);
  if (request.type != kUpdateInstances) {
    refuseType(request);
  }
}

std::string responseDocument(const std::vector<const Device*>& devices) {
  std::string out(kAnswerDeclaration);
  out += "<response>";
  for (const Device* device : devices) {
    fmt::format_to(std::back_inserter(out), R"(<instance name="{}">)",
                   escapeXml(device->className));
    appendField(out, kDeviceIdField, "string", device->id);
    for (const Field& field : device->fields) {
      appendField(out, field.name, field.type, field.value);
    }
    out += "</instance>";
  }
  out += "</response>";
  return out;
}

std::string errorDocument(std::string_view what) {
  return fmt::format(R"({}<response><error name="{}"/></response>)", kAnswerDeclaration,
                     escapeXml(what));
}

std::string hugeDocument(std::string_view className, std::size_t count) {
  std::string out(kAnswerDeclaration);
  out += "<response>";
  for (std::size_t i = 1; i <= count; ++i) {
    fmt::format_to(std::back_inserter(out), R"(<instance name="{}">)", escapeXml(className));
    appendField(out, kDeviceIdField, "string", fmt::format("HUGE{:06}", i));
    appendField(out, kMakerField, "string", "Veltran");
    appendField(out, "ModelName", "string", "Made up to make the answer huge");
    out += "</instance>";
  }
  out += "</response>";
  return out;
}

Event deviceEvent(const Device& device, std::string_view type, std::string_view code,
                  EventFields fields) {
  Event event{
      std::string(type), std::string(device.category()), std::string(code), device.className, {}};
  event.fields.push_back({std::string(kDeviceIdField), "string", device.id});
  for (const Field& field : device.fields) {
    if (fields == EventFields::All || field.name == kMakerField) {
      event.fields.push_back(field);
    }
  }
  return event;
}

std::string eventDocument(const Event& event) {
  std::string out(kEventDeclaration);
  fmt::format_to(std::back_inserter(out),
                 R"(<event type="{}" classname="{}" modifyInstanceCode="{}" provider="{}">)",
                 escapeXml(event.type), escapeXml(event.classname), escapeXml(event.code),
                 escapeXml(event.provider));
  for (const Field& field : event.fields) {
    appendField(out, field.name, field.type, field.value);
  }
  out += kEventEnd;
  return out;
}

} // namespace till
