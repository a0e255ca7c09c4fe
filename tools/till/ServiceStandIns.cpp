// The linked parts of the service only read here: they write no line into the service's log, ask no
// device server, send to none and read no configuration.

#include "adapter/RequestSocket.h"
#include "proxy/SendToClients.h"
#include "trace/UPOSLog.h"
#include "win/Configuration.h"

bool trace::UPOSLog::isSwitchedOn() noexcept {
  return false;
}
void trace::UPOSLog::emit(std::string_view, std::initializer_list<TraceArgument>) noexcept {}

std::string adapter::exchangeRequest(const std::string&) {
  return {};
}

void proxy::sendToClients(const std::string&) {}

unsigned configuration::readInt(const char*, int defaultValue, const char*) noexcept {
  return static_cast<unsigned>(defaultValue);
}
std::string configuration::readText(const char*, const char* defaultValue, const char*) {
  return defaultValue;
}
