#include "strategy/UPOSAdapter.h"

#include "model/IUPOSXmlAdapter.h"
#include "model/RequestVocabulary.h"
#include "strategy/StrategyFactory.h"
#include "trace/UPOSLog.h"

#include <memory>
#include <utility>

using model::InstanceList;
using trace::UPOSLog;

namespace com::orvex {

namespace {

constexpr std::uint32_t kNoStrategy = 0xFFFFFFFF;

std::unique_ptr<IUPOSXmlAdapter> createXmlAdapter() {
  StrategyFactory* const factory = com::orvex::getStrategyFactory();
  return std::unique_ptr<IUPOSXmlAdapter>(factory != nullptr ? factory->createXmlAdapter()
                                                             : nullptr);
}

} // namespace

UPOSAdapter::UPOSAdapter() {
  UPOSLog::trace("<<UPOSAdapter(%p) created", static_cast<const void*>(this));
}

UPOSAdapter::~UPOSAdapter() {
  UPOSLog::trace("<<UPOSAdapter(%p) destroyed", static_cast<const void*>(this));
}

void UPOSAdapter::enumerateInstances(std::string className, std::uint32_t* status) {
  const std::unique_ptr<IUPOSXmlAdapter> xml = createXmlAdapter();
  if (xml == nullptr) {
    *status = kNoStrategy;
    return;
  }
  UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: xml->toXML(%s, REQUEST, ENUMERATE, ...)",
                 className);
  std::string request;
  xml->toXML(std::move(className), request_vocabulary::kRequest,
             request_vocabulary::kEnumerateInstances, {}, request);
  // Kept: this line and one below label the document as the class.
  UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: Invoking request to Java code - class '%s'",
                 request);
  UPOSLog::trace("<<Request>>: '%s'", request);
  const std::string response = xml->sendRequest(request);
  UPOSLog::trace(
      "<<UPOSAdapter::enumerateInstances>>: got response, converting from XML - class '%s'",
      request);
  UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: answer: '%s'", response);
  *status = xml->fromXML(response);
  UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: after fromXML - answer: '%s'", response);
  if (*status == 0) {
    UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: calling xml->getInstances()");
    setInstances(xml->getInstances());
    UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: xml->getInstances() returned");
  }
  UPOSLog::trace("<<UPOSAdapter::enumerateInstances>>: Returning request");
}

void UPOSAdapter::getInstance(std::string className, std::string key) {
  const std::unique_ptr<IUPOSXmlAdapter> xml = createXmlAdapter();
  if (xml == nullptr) {
    setInstances({});
    return;
  }
  std::string request;
  xml->toXML(std::move(className), request_vocabulary::kRequest, request_vocabulary::kGetInstance,
             std::move(key), request);
  UPOSLog::trace("<<UPOSAdapter::getInstance>>: Invoking request");
  UPOSLog::trace("<<Request>>: %s", request); // without quotes, unlike the enumeration's
  const std::string response = xml->sendRequest(request);
  UPOSLog::trace("Answer: '%s'", response);
  // Unlike an enumeration, a lookup ignores the status: it takes the instances even after an error.
  xml->fromXML(response);
  setInstances(xml->getInstances());
}

void UPOSAdapter::setInstances(InstanceList instances) {
  if (currentProperty_ != nullptr) {
    lastName_ = currentProperty_->front();
    currentProperty_ = nullptr;
  }
  instances_ = std::move(instances);
}

std::int32_t UPOSAdapter::getInstanceCount() const noexcept {
  return static_cast<std::int32_t>(instances_.size());
}

std::int32_t UPOSAdapter::selectInstance(std::int32_t index) {
  return has(instances_, index)
             ? static_cast<std::int32_t>(instances_[static_cast<std::size_t>(index)].size())
             : 0;
}

} // namespace com::orvex
