#include "device_server/Till.h"

#include <algorithm>

namespace till {

std::string_view Device::category() const {
  std::string_view name = className;
  return name.starts_with(kClassPrefix) ? name.substr(kClassPrefix.size()) : name;
}

std::string_view Device::value(std::string_view field) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const Field& each) { return each.name == field; });
  return found == fields.end() ? std::string_view() : std::string_view(found->value);
}

bool Till::add(Device device) {
  if (find(device.id) != nullptr) {
    return false;
  }
  devices_.push_back(std::move(device));
  return true;
}

Device* Till::find(std::string_view id) {
  const auto found = std::find_if(devices_.begin(), devices_.end(),
                                  [&](const Device& each) { return each.id == id; });
  return found == devices_.end() ? nullptr : &*found;
}

std::size_t Till::attachedCount() const {
  return attachedOf(kEveryDevice).size();
}

std::vector<const Device*> Till::attachedOf(std::string_view className) const {
  std::vector<const Device*> result;
  for (const Device& device : devices_) {
    if (device.attached && (className == kEveryDevice || className == device.className)) {
      result.push_back(&device);
    }
  }
  return result;
}

} // namespace till
