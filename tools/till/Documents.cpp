#include "till/Documents.h"

#include "till/Xml.h"

#include <fmt/format.h>

#include <algorithm>
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

} // namespace

Request readRequest(std::string_view document, std::initializer_list<std::string_view> types) {
  XmlElement root;
  try {
    root = readXml(document, true);
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
  if (std::find(types.begin(), types.end(), request.type) == types.end()) {
    throw RequestError(fmt::format("unknown request type '{}'", request.type));
  }
  if (request.className.empty() && request.type != kUpdateInstances) {
    throw RequestError(fmt::format("malformed request: {} without a class", request.type));
  }
  if (request.id.empty() && request.type == kGetInstance) {
    throw RequestError("malformed request: getInstance without an id");
  }
  return request;
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

std::string eventDocument(const Device& device, std::string_view classname, std::string_view type,
                          std::string_view code, EventFields fields) {
  std::string out(kEventDeclaration);
  fmt::format_to(std::back_inserter(out),
                 R"(<event type="{}" classname="{}" modifyInstanceCode="{}" provider="{}">)",
                 escapeXml(type), escapeXml(classname), escapeXml(code),
                 escapeXml(device.className));
  appendField(out, kDeviceIdField, "string", device.id);
  for (const Field& field : device.fields) {
    if (fields == EventFields::All || field.name == kMakerField) {
      appendField(out, field.name, field.type, field.value);
    }
  }
  out += kEventEnd;
  return out;
}

} // namespace till
