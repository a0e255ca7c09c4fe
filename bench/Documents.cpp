#include "Documents.h"

namespace documents {
namespace {

std::string field(const char* name, const char* type, const std::string& value) {
  return std::string("<field name=\"") + name + "\" type=\"" + type + "\">" + value + "</field>";
}

std::string instance(const std::string& content) {
  return std::string("<instance name=\"") + kClass + "\">" + content + "</instance>";
}

std::string deviceFields(const std::string& id, std::size_t number) {
  const std::string text = std::to_string(number);
  return field("DeviceID", "string", id) + field("ManufacturerName", "string", "Veltran") +
         field("DeviceCategory", "string", "Scanner") +
         field("ModelName", "string", "VS-3200 bi-optic") +
         field("SerialNumber", "string", "VS32-" + text) +
         field("FirmwareRevision", "string", "4.12.0") +
         field("HoursPoweredCount", "uint32", text) + field("CapUpdateFirmware", "boolean", "true");
}

std::string response(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><response>" + content + "</response>";
}

} // namespace

std::string deviceId(std::size_t number) {
  return "DEV" + std::to_string(number);
}

std::string answer(std::size_t count) {
  std::string instances;
  for (std::size_t number = 0; number < count; ++number) {
    instances += instance(deviceFields(deviceId(number), number));
  }
  return response(instances);
}

std::string answerFor(const std::string& id) {
  return response(instance(deviceFields(id, 1)));
}

std::string event(const std::string& type, std::size_t number) {
  const std::string content =
      type == "addInstance" ? deviceFields(deviceId(number), number)
                            : field("DeviceID", "string", deviceId(number)) +
                                  field("ManufacturerName", "string", "Veltran") +
                                  field("FirmwareRevision", "string", "4.12.1") +
                                  field("HoursPoweredCount", "uint32", std::to_string(number));
  return "<?xml version='1.0' encoding='UTF-8' standalone='no' ?><event type=\"" + type +
         "\" classname=\"" + kClass + "\" modifyInstanceCode=\"1\" provider=\"" + kClass + "\">" +
         content + "</event>";
}

} // namespace documents
