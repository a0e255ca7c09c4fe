#include "win/testing/FakeConfiguration.h"

#include "win/Configuration.h"

#include <map>
#include <mutex>

namespace {
std::mutex mutex;
std::map<std::string, std::string> texts;
} // namespace

namespace fake_configuration {
void set(const std::string& key, const std::string& text) {
  std::scoped_lock lock(mutex);
  texts[key] = text;
}
void clear() {
  std::scoped_lock lock(mutex);
  texts.clear();
}
} // namespace fake_configuration

namespace configuration {

// The same texts for every file.
std::string readText(const char* key, const char* defaultValue, const char*) {
  std::scoped_lock lock(mutex);
  const auto found = texts.find(key);
  return found != texts.end() ? found->second : defaultValue;
}

unsigned readInt(const char* key, int defaultValue, const char* file) noexcept {
  return static_cast<unsigned>(
      std::stoi(readText(key, std::to_string(defaultValue).c_str(), file)));
}

} // namespace configuration
