// Any text as the path of a WMI object that a client retrieves.

#include "Fuzzing.h"
#include "provider/ObjectPathText.h"

#include <algorithm>

using fuzzing::require;
using provider::readObjectPath;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // On the heap, where the sanitizer sees an access beyond it.
  const std::string path(fuzzing::textOf(data, size));
  const auto [className, deviceId] = readObjectPath(path);

  require(path.starts_with(className) && className.find('.') == std::string::npos,
          "the class is the text without a dot that begins the path");
  require(className.size() == path.size() || path[className.size()] == '.',
          "the class ends at the first dot");

  const auto quotes = std::count(path.begin(), path.end(), '"');
  const std::string front = path.substr(0, path.find('"'));
  if (quotes == 0) {
    require(deviceId == path, "without quotes the id is the whole path");
  } else if (quotes == 1) {
    require(front + '"' + deviceId == path, "with one quote the id is all behind it");
  } else {
    require(path.starts_with(front + '"' + deviceId + '"') &&
                std::count(deviceId.begin(), deviceId.end(), '"') == quotes - 2,
            "the id stands between the first and the last quote");
  }
  return 0;
}
