#include "proxy/CIMDevice.h"

#include "trace/UPOSLog.h"

#include <algorithm>
#include <iterator>
#include <locale>
#include <sstream>
#include <utility>

using model::DeviceEvent;
using model::Field;
using model::Fields;
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

const std::string& nameIn(const Field& field) {
  return field[0];
}

const std::string& nameOf(const Field* field) {
  return (*field)[0];
}

int count(const std::vector<std::string>& instances) {
  return static_cast<int>(instances.size());
}

} // namespace

CIMDevice::CIMDevice(std::string className, std::string deviceId, const Fields& record)
    : className_(std::move(className)), deviceId_(std::move(deviceId)) {
  // Sorted first, so that each addition is one at the end. Stable, since the last of a name counts.
  std::vector<const Field*> sorted;
  sorted.reserve(record.size());
  for (const Field& field : record) {
    sorted.push_back(&field);
  }
  std::ranges::stable_sort(sorted, {}, nameOf);
  fields_.reserve(record.size());
  for (const Field* field : sorted) {
    addRecordField(*field);
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
  Fields merged;
  merged.reserve(fields_.size() + other.fields_.size());
  std::ranges::set_union(other.fields_, fields_, std::back_inserter(merged), {}, nameIn, nameIn);
  fields_ = std::move(merged);
}

void CIMDevice::addField(const std::string& name, const char* type, std::string value) {
  const auto place = std::ranges::lower_bound(fields_, name, {}, nameIn);
  if (place != fields_.end() && (*place)[0] == name) {
    (*place)[1] = type;
    (*place)[2] = std::move(value);
  } else {
    fields_.insert(place, {name, type, std::move(value)});
  }
}

void CIMDevice::addUint32Field(const std::string& name, std::uint32_t value) {
  addField(name, "uint32", std::to_string(value));
}

void CIMDevice::addUint64Field(const std::string& name, std::uint64_t value) {
  addField(name, "uint64", std::to_string(value));
}

void CIMDevice::addStringField(const std::string& name, const std::string& value) {
  addField(name, "string", value);
}

void CIMDevice::addBooleanField(const std::string& name, bool value) {
  addField(name, "boolean", value ? "true" : "false");
}

} // namespace proxy
