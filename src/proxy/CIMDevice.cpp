#include "proxy/CIMDevice.h"

#include "trace/UPOSLog.h"

#include <algorithm>
#include <locale>
#include <sstream>
#include <utility>

using model::DeviceEvent;
using model::Field;
using model::Instance;
using trace::UPOSLog;

namespace proxy {

namespace {

// Reads as a C++ stream does; an empty text gives 0.
template <class Number>
Number readNumber(const std::string& text) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  Number number = 0;
  stream >> number;
  return number;
}

int count(const std::vector<std::string>& instances) {
  return static_cast<int>(instances.size());
}

} // namespace

CIMDevice::CIMDevice(std::string className, std::string deviceId, const Instance& record)
    : className_(std::move(className)), deviceId_(std::move(deviceId)) {
  for (const Field& field : record) {
    addRecordField(field);
  }
}

CIMDevice::CIMDevice(const DeviceEvent& event)
    : CIMDevice(event.className, event.deviceId, event.fields) {}

void CIMDevice::addRecordField(const Field& field) {
  const std::string& name = field[0];
  const std::string& type = field[1];
  const std::string& value = field[2];
  if (type == "uint32") {
    addUint32Field(name, readNumber<std::uint32_t>(value));
  } else if (type == "uint64") {
    addUint64Field(name, readNumber<std::uint64_t>(value));
  } else if (type == "string") {
    addStringField(name, value);
  } else if (type == "boolean") {
    // By design all other spellings are false: device servers write one of these two.
    addBooleanField(name, value == "true" || value == "TRUE");
  }
}

void CIMDevice::addInstance(const std::string& className) {
  UPOSLog::trace("Instance count before adding %s is %d", deviceId_, count(instances_));
  UPOSLog::trace("Adding instance %s with ID %s", className, deviceId_);
  // By design also when it is already listed: a device added twice must be deleted twice.
  instances_.push_back(className);
  UPOSLog::trace("Instance count after adding %s is %d", deviceId_, count(instances_));
}

void CIMDevice::deleteInstance(const std::string& className) {
  UPOSLog::trace("Instance count before deleting %s is %d", deviceId_, count(instances_));
  const auto found = std::find(instances_.begin(), instances_.end(), className);
  if (found != instances_.end()) {
    UPOSLog::trace("Delete instance %s with ID %s", className, deviceId_);
    instances_.erase(found);
  }
  UPOSLog::trace("Instance count after deleting %s is %d", deviceId_, count(instances_));
}

void CIMDevice::merge(const CIMDevice& other) {
  for (const auto& [name, value] : other.fields_) {
    fields_.insert_or_assign(name, value);
  }
}

void CIMDevice::addUint32Field(const std::string& name, std::uint32_t value) {
  fields_.insert_or_assign(name, Value{"uint32", std::to_string(value)});
}

void CIMDevice::addUint64Field(const std::string& name, std::uint64_t value) {
  fields_.insert_or_assign(name, Value{"uint64", std::to_string(value)});
}

void CIMDevice::addStringField(const std::string& name, const std::string& value) {
  fields_.insert_or_assign(name, Value{"string", value});
}

void CIMDevice::addBooleanField(const std::string& name, bool value) {
  fields_.insert_or_assign(name, Value{"boolean", value ? "true" : "false"});
}

} // namespace proxy
