#include "proxy/CIMContainer.h"

#include "trace/UPOSLog.h"

#include <algorithm>
#include <utility>

using trace::UPOSLog;

namespace proxy {

namespace {
constexpr std::string_view kAllDevices = "UPOS_LogicalDevice";
} // namespace

CIMContainer& CIMContainer::getInstance() {
  static auto* const container = new CIMContainer; // never destroyed: threads may outlive main
  return *container;
}

CIMContainer::Reference CIMContainer::find(const CIMDevice& device) const {
  const std::string id = device.getDeviceId();
  std::scoped_lock lock(mutex_);
  const auto found = index_.find(id);
  return found != index_.end() ? found->second->device : nullptr;
}

// There is a single writer, so a look-up stays valid until the change that follows it.
void CIMContainer::add(const CIMDevice& device) {
  if (find(device)) {
    return;
  }
  UPOSLog::trace("Adding CIMDevice: %s", device.getDeviceId());
  Records added;
  added.push_back({device.getDeviceId(), std::make_shared<const CIMDevice>(device)});
  std::scoped_lock lock(mutex_);
  index_.try_emplace(added.front().id, added.begin());
  listedByName_ += device.hasClass(kAllDevices) ? 1U : 0U;
  records_.splice(records_.end(), added);
}

void CIMContainer::replace(const CIMDevice& device) {
  const std::string id = device.getDeviceId();
  Reference changed = std::make_shared<const CIMDevice>(device);
  std::scoped_lock lock(mutex_);
  if (const auto found = index_.find(id); found != index_.end()) {
    found->second->device.swap(changed);
    listedByName_ += found->second->device->hasClass(kAllDevices) ? 1U : 0U;
    listedByName_ -= changed->hasClass(kAllDevices) ? 1U : 0U;
  }
}

void CIMContainer::remove(const CIMDevice& device) {
  if (!find(device)) {
    return;
  }
  const std::string id = device.getDeviceId();
  UPOSLog::trace("Removing CIMDevice: %s", id);
  Records removed; // destroyed after the lock is left
  std::scoped_lock lock(mutex_);
  const auto found = index_.find(id);
  const auto record = found->second;
  listedByName_ -= record->device->hasClass(kAllDevices) ? 1U : 0U;
  index_.erase(found);
  removed.splice(removed.end(), records_, record);
}

std::vector<CIMContainer::Reference>
CIMContainer::getInstances(const std::string& className) const {
  UPOSLog::trace("CIMContainer::getInstances(%s)", className);
  return devicesOf(className);
}

std::vector<CIMContainer::Reference> CIMContainer::devicesOf(const std::string& className) const {
  const bool all = className == kAllDevices;
  std::vector<Reference> devices;
  {
    std::scoped_lock lock(mutex_);
    devices.reserve(all ? records_.size() : 0);
    for (const Record& record : records_) {
      if (all || record.device->hasClass(className)) {
        devices.push_back(record.device);
      }
    }
  }
  for (const Reference& device : devices) {
    if (device->hasClass(className)) {
      UPOSLog::trace("CIMContainer::adding instance (id=%s)", device->getDeviceId());
    }
  }
  return devices;
}

CIMContainer::Selection CIMContainer::select(const std::string& className,
                                             const std::string& id) const {
  UPOSLog::trace("CIMContainer::getInstances(%s)", className);
  if (className == kAllDevices) {
    std::scoped_lock lock(mutex_);
    if (listedByName_ == 0) { // so getInstances would trace no device
      const auto found = index_.find(id);
      return {records_.size(), found != index_.end() ? found->second->device : nullptr};
    }
  }
  const std::vector<Reference> devices = devicesOf(className);
  const auto found =
      std::ranges::find_if(devices, [&](const Reference& device) { return device->hasId(id); });
  return {devices.size(), found != devices.end() ? *found : nullptr};
}

} // namespace proxy
