// What the plain core asks of Windows: nobody has switched the trace on, nothing is configured.

#include "trace/UPOSLog.h"
#include "win/Configuration.h"

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
