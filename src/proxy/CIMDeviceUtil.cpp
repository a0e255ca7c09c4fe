#include "proxy/CIMDeviceUtil.h"

#include "trace/UPOSLog.h"

using model::DeviceEvent;
using trace::UPOSLog;

namespace proxy {

namespace {

constexpr const char* kNotPublished = "NA";

void addInstance(DeviceEvent& event, CIMDevice device, const CIMDevice* cached,
                 CIMContainer& container) {
  if (cached == nullptr) {
    device.addInstance(event.provider);
    container.add(device);
    return;
  }
  event.type = kNotPublished;
  CIMDevice changed = *cached;
  changed.addInstance(event.provider);
  changed.merge(device);
  container.replace(changed);
}

void modifyInstance(DeviceEvent& event, const CIMDevice& device, const CIMDevice* cached,
                    CIMContainer& container) {
  if (cached != nullptr) {
    CIMDevice changed = *cached;
    changed.merge(device);
    container.replace(changed);
  }
  if (cached == nullptr || event.modifyInstanceCode.empty() || event.modifyInstanceCode == " ") {
    event.type = kNotPublished;
  }
}

void deleteInstance(DeviceEvent& event, const CIMDevice* cached, CIMContainer& container) {
  if (cached == nullptr) {
    event.type = kNotPublished;
    return;
  }
  CIMDevice changed = *cached;
  changed.deleteInstance(event.provider);
  if (changed.instanceCount() == 0) {
    container.remove(changed);
  } else {
    container.replace(changed);
    event.type = kNotPublished;
  }
}

} // namespace

DeviceEvent CIMDeviceUtil::processEvent(DeviceEvent event, CIMContainer& container) {
  const CIMDevice device(event);
  const CIMContainer::Reference cached = container.find(device);
  UPOSLog::trace("<<CIMDeviceUtil:processEvent>>: provider='%s' type='%s' devicFound=%p",
                 event.provider, event.type, cached.get());
  if (event.type == "addInstance") {
    addInstance(event, device, cached.get(), container);
  } else if (event.type == "modifyInstance") {
    modifyInstance(event, device, cached.get(), container);
  } else if (event.type == "delInstance") {
    deleteInstance(event, cached.get(), container);
  }
  UPOSLog::trace("<<CIMDeviceUtil:processEvent>>: provider='%s' type='%s' returning",
                 event.provider, event.type);
  return event;
}

} // namespace proxy
