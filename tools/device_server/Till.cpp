#include "device_server/Till.h"

#include <algorithm>
#include <utility>

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
  if (!places_.emplace(device.id, devices_.size()).second) {
    return false;
  }
  devices_.push_back(std::move(device));
  return true;
}

Device* Till::find(const std::string& id) {
  const auto found = places_.find(id);
  return found == places_.end() ? nullptr : &devices_[found->second];
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
