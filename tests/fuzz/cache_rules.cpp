// Any sequence of events as they reach the device cache, an event a line:
// type;device id;class name;code;provider;name,type,value;name,type,value...

#include "Fuzzing.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/testing/CacheModel.h"

#include <algorithm>
#include <iterator>

using fuzzing::require;
using proxy_testing::CacheModel;
using proxy_testing::seen;
using Device = CacheModel::Device;
using model::DeviceEvent;
using proxy::CIMContainer;
using proxy::CIMDevice;
using proxy::CIMDeviceUtil;

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view lines = fuzzing::textOf(data, size);
  CIMContainer container;
  CacheModel model;
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
