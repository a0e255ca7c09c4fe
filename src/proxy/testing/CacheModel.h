#pragma once

#include "model/DeviceEvent.h"
#include "proxy/CIMContainer.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// The device cache's rules on a plain list. Events are processed by it and by the cache side by
/// side; both must hold the same.
namespace proxy_testing {

class CacheModel {
public:
  struct Device {
    std::string className;
    std::string id;
    std::vector<std::string> listed;
    std::map<std::string, std::pair<std::string, std::string>> fields; // type and value by name
    bool operator==(const Device&) const = default;
  };

  /// The type under which the event is published.
  std::string process(const model::DeviceEvent& event) {
    const auto device = std::find_if(devices.begin(), devices.end(),
                                     [&](const Device& d) { return d.id == event.deviceId; });
    const bool known = device != devices.end();
    if (event.type == "addInstance") {
      if (!known) {
        devices.push_back({event.className, event.deviceId, {event.provider}, {}});
        merge(devices.back(), event);
        return event.type;
      }
      device->listed.push_back(event.provider);
      merge(*device, event);
      return "NA";
    }
    if (event.type == "modifyInstance") {
      if (known) {
        merge(*device, event);
      }
      const bool coded = !event.modifyInstanceCode.empty() && event.modifyInstanceCode != " ";
      return known && coded ? event.type : "NA";
    }
    if (event.type == "delInstance") {
      if (!known) {
        return "NA";
      }
      const auto listed = std::find(device->listed.begin(), device->listed.end(), event.provider);
      if (listed != device->listed.end()) {
        device->listed.erase(listed);
      }
      if (!device->listed.empty()) {
        return "NA";
      }
      devices.erase(device);
    }
    return event.type;
  }

  std::vector<Device> devices;

private:
  /// As a stream reads a decimal number, by the C library.
  static std::string numberOf(const std::string& text, unsigned long long largest) {
    const char* digits = text.c_str();
    digits += std::strspn(digits, " \t\n\v\f\r");
    const bool negative = *digits == '-';
    digits += negative || *digits == '+' ? 1 : 0;
    if (*digits < '0' || *digits > '9') {
      return "0";
    }
    errno = 0;
    const unsigned long long number = std::strtoull(digits, nullptr, 10);
    if (errno == ERANGE || number > largest) {
      return std::to_string(largest);
    }
    return std::to_string(negative ? (0 - number) & largest : number);
  }

  static void merge(Device& device, const model::DeviceEvent& event) {
    for (const model::Field& field : event.fields) {
      const std::string& type = field[1];
      if (type == "uint32") {
        device.fields[field[0]] = {type, numberOf(field[2], 0xFFFFFFFFU)};
      } else if (type == "uint64") {
        device.fields[field[0]] = {
            type, numberOf(field[2], std::numeric_limits<unsigned long long>::max())};
      } else if (type == "boolean") {
        const bool on = field[2] == "true" || field[2] == "TRUE";
        device.fields[field[0]] = {type, on ? "true" : "false"};
      } else if (type == "string") {
        device.fields[field[0]] = {type, field[2]};
      }
    }
  }
};

/// What the cache holds, as the model holds it.
inline CacheModel::Device seen(const proxy::CIMDevice& device) {
  CacheModel::Device copy{device.getClassName(), device.getDeviceId(), device.instances(), {}};
  for (const model::Field& field : device.fields()) {
    copy.fields[field[0]] = {field[1], field[2]};
  }
  return copy;
}

inline std::vector<CacheModel::Device>
seen(const std::vector<proxy::CIMContainer::Reference>& devices) {
  std::vector<CacheModel::Device> copies;
  for (const proxy::CIMContainer::Reference& device : devices) {
    copies.push_back(seen(*device));
  }
  return copies;
}

} // namespace proxy_testing
