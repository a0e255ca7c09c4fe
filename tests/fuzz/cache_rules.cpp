// Any sequence of events as they reach the device cache, an event a line:
// type;device id;class name;code;provider;name,type,value;name,type,value...

#include "Fuzzing.h"
#include "proxy/CIMContainer.h"
#include "proxy/CIMDeviceUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

using fuzzing::require;

namespace {

DeviceEvent eventOf(std::string_view line) {
  DeviceEvent event;
  event.type = fuzzing::cutFront(line, ';');
  event.deviceId = fuzzing::cutFront(line, ';');
  event.className = fuzzing::cutFront(line, ';');
  event.modifyInstanceCode = fuzzing::cutFront(line, ';');
  event.provider = fuzzing::cutFront(line, ';');
  while (!line.empty()) {
    std::string_view field = fuzzing::cutFront(line, ';');
    const std::string name(fuzzing::cutFront(field, ','));
    const std::string type(fuzzing::cutFront(field, ','));
    event.fields.push_back({name, type, std::string(field)});
  }
  return event;
}

struct Device {
  std::string className;
  std::string id;
  std::vector<std::string> listed;
  std::map<std::string, std::pair<std::string, std::string>> fields;
  bool operator==(const Device&) const = default;
};

/// As a stream reads a decimal number, by the C library.
std::string numberOf(const std::string& text, unsigned long long largest) {
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

/// The cache's rules once more, on a plain list.
class Model {
public:
  std::string process(const DeviceEvent& event) {
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
  static void merge(Device& device, const DeviceEvent& event) {
    for (const Field& field : event.fields) {
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

Device seen(const CIMDevice& device) {
  Device copy{device.getClassName(), device.getDeviceId(), device.instances(), {}};
  for (const auto& [name, value] : device.fields()) {
    copy.fields[name] = {value.type, value.value};
  }
  return copy;
}

std::vector<Device> seen(const std::vector<CIMContainer::Reference>& references) {
  std::vector<Device> devices;
  for (const CIMContainer::Reference& reference : references) {
    devices.push_back(seen(*reference));
  }
  return devices;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view lines = fuzzing::textOf(data, size);
  CIMContainer container;
  Model model;
  std::vector<CIMContainer::Reference> held;
  std::vector<Device> heldAs;
  while (!lines.empty()) {
    const DeviceEvent event = eventOf(fuzzing::cutFront(lines, '\n'));
    const DeviceEvent returned = CIMDeviceUtil::processEvent(event, container);
    require(returned.type == model.process(event), "an event is published as the rules say");
    require(returned.deviceId == event.deviceId && returned.className == event.className &&
                returned.modifyInstanceCode == event.modifyInstanceCode &&
                returned.provider == event.provider && returned.fields == event.fields,
            "an event comes back as it came besides its type");

    auto all = container.getInstances("UPOS_LogicalDevice");
    require(seen(all) == model.devices, "the cache is what the rules leave");
    require(seen(held) == heldAs, "a reader keeps what it was handed");
    held = std::move(all);
    heldAs = model.devices;

    std::vector<Device> ofClass;
    std::copy_if(model.devices.begin(), model.devices.end(), std::back_inserter(ofClass),
                 [&](const Device& device) { return device.className == event.className; });
    require(event.className == "UPOS_LogicalDevice" ||
                seen(container.getInstances(event.className)) == ofClass,
            "a class yields its own devices in order");
    const CIMContainer::Reference found = container.find(CIMDevice(event));
    const auto known =
        std::find_if(model.devices.begin(), model.devices.end(),
                     [&](const Device& device) { return device.id == event.deviceId; });
    require(known == model.devices.end() ? found == nullptr
                                         : found != nullptr && seen(*found) == *known,
            "a device is found by its id");
    for (const std::string& className : {std::string("UPOS_LogicalDevice"), event.className}) {
      const bool listed = known != model.devices.end() &&
                          (className == "UPOS_LogicalDevice" || className == known->className);
      const auto [count, device] = container.select(className, event.deviceId);
      require(listed ? device != nullptr && seen(*device) == *known : device == nullptr,
              "a class yields the one of its devices with that id");
      require(count == (className == "UPOS_LogicalDevice" ? model.devices.size() : ofClass.size()),
              "a class counts its devices");
    }
  }
  return 0;
}
