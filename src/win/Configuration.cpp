#include "win/Configuration.h"

#include <windows.h>

namespace configuration {

namespace {
constexpr const char* kSection = "default";
}

unsigned readInt(const char* key, int defaultValue, const char* file) noexcept {
  return GetPrivateProfileIntA(kSection, key, defaultValue, file);
}

std::string readText(const char* key, const char* defaultValue, const char* file) {
  char text[256];
  GetPrivateProfileStringA(kSection, key, defaultValue, text, sizeof text, file);
  return text;
}

} // namespace configuration
