#include "win/Configuration.h"

#include <windows.h>

namespace configuration {

namespace {
constexpr const char* kSection = "default";
}

unsigned readInt(const char* key, int defaultValue) noexcept {
  return GetPrivateProfileIntA(kSection, key, defaultValue, kFile);
}

std::string readText(const char* key, const char* defaultValue) {
  char text[256];
  GetPrivateProfileStringA(kSection, key, defaultValue, text, sizeof text, kFile);
  return text;
}

} // namespace configuration
