#include "cache/CIMContainer.h"

#include "trace/UPOSLog.h"

#include <utility>

namespace {
constexpr std::string_view kAllDevices = "UPOS_LogicalDevice";
} // namespace

CIMContainer& CIMContainer::getInstance() {
  static auto* const container = new CIMContainer; // no thread is joined at the end
  return *container;
}

CIMContainer::Reference CIMContainer::find(const CIMDevice& device) const {
  const std::string id = device.getDeviceId();
  std::scoped_lock lock(mutex_);
  const auto found = index_.find(id);
  return found != index_.end() ? found->second->device : nullptr;
}

void CIMContainer::add(const CIMDevice& device) {
  Records added;
  added.push_back({device.getDeviceId(), std::make_shared<const CIMDevice>(device)});
  {
    std::scoped_lock lock(mutex_);
    if (!index_.try_emplace(added.front().id, added.begin()).second) {
      return;
    }
    records_.splice(records_.end(), added);
  }
  UPOSLog::trace("Adding CIMDevice: %s", device.getDeviceId());
}

void CIMContainer::replace(const CIMDevice& device) {
  const std::string id = device.getDeviceId();
  Reference changed = std::make_shared<const CIMDevice>(device);
  std::scoped_lock lock(mutex_);
  if (const auto found = index_.find(id); found != index_.end()) {
    found->second->device.swap(changed);
  }
}

void CIMContainer::remove(const CIMDevice& device) {
  const std::string id = device.getDeviceId();
  Records removed; // destroyed after the lock is left
  {
    std::scoped_lock lock(mutex_);
    const auto found = index_.find(id);
    if (found == index_.end()) {
      return;
    }
    const auto record = found->second;
    index_.erase(found);
    removed.splice(removed.end(), records_, record);
  }
  UPOSLog::trace("Removing CIMDevice: %s", id);
}

std::vector<CIMContainer::Reference>
CIMContainer::getInstances(const std::string& className) const {
  UPOSLog::trace("CIMContainer::getInstances(%s)", className);
  const bool all = className == kAllDevices;
  std::vector<Reference> devices;
  {
    std::scoped_lock lock(mutex_);
    devices.reserve(all ? records_.size() : 0);
    for (const Record& record : records_) {
      if (all || record.device->isOfClass(className)) {
        devices.push_back(record.device);
      }
    }
  }
  if (UPOSLog::isSwitchedOn()) { // nothing else needs this second walk
    for (const Reference& device : devices) {
      if (device->isOfClass(className)) {
        UPOSLog::trace("CIMContainer::adding instance (id=%s)", device->getDeviceId());
      }
    }
  }
  return devices;
}

std::vector<CIMContainer::Reference> CIMContainer::getInstances(const std::string& className,
                                                                const std::string& id) const {
  const std::scoped_lock lock(mutex_);
  const auto found = index_.find(id);
  if (found == index_.end() ||
      (className != kAllDevices && !found->second->device->isOfClass(className))) {
    return {};
  }
  return {found->second->device};
}
