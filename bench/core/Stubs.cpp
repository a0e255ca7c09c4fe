// What the plain core asks of Windows: nobody has switched the trace on, nothing is configured; and
// a strategy whose answers are prepared.

#include "PreparedAnswer.h"
#include "model/IUPOSXmlAdapter.h"
#include "strategy/StrategyFactory.h"
#include "trace/UPOSLog.h"
#include "win/Configuration.h"

using model::DeviceEvent;
using model::InstanceList;
using trace::TraceArgument;
using trace::UPOSLog;

bool UPOSLog::isSwitchedOn() noexcept {
  return false;
}
void UPOSLog::emit(std::string_view, std::initializer_list<TraceArgument>) noexcept {}

namespace configuration {
unsigned readInt(const char*, int defaultValue, const char*) noexcept {
  return static_cast<unsigned>(defaultValue);
}
std::string readText(const char*, const char* defaultValue, const char*) {
  return defaultValue;
}
} // namespace configuration

namespace com::orvex {

namespace {

class PreparedXmlAdapter : public IUPOSXmlAdapter {
public:
  std::uint32_t toXML(std::string, std::string, std::string, std::string, std::string&) override {
    return 0;
  }
  std::uint32_t fromXML(std::string) override { return 0; }
  std::string sendRequest(std::string) override { return {}; }
  InstanceList getInstances() override { return prepared_answer::devices; }
  DeviceEvent fromXMLEvent(std::string) override { return {}; }
};

class PreparedFactory : public StrategyFactory {
public:
  IUPOSXmlAdapter* createXmlAdapter() override { return new PreparedXmlAdapter; }
  CommunicationLayer* createCommunicationLayer() override { return nullptr; }
};

} // namespace

StrategyFactory* getStrategyFactory() {
  static PreparedFactory factory;
  return &factory;
}

} // namespace com::orvex
