// Any text as the path of a WMI object that a client retrieves, and as the class text in it.

#include "Fuzzing.h"
#include "provider/ObjectPathText.h"

#include <algorithm>

using fuzzing::require;
using provider::namesInstance;
using provider::readObjectPath;

namespace {

/// What holds for every class text that names an instance.
void checkClassText(const std::string& text) {
  const bool names = namesInstance(text);
  if (names) {
    const std::size_t equals = text.find('=');
    require(equals != std::string::npos &&
                text.find_first_not_of(" \t\r\n", equals + 1) != std::string::npos,
            "an unnamed key has a value");
    const std::string name = text.substr(0, equals);
    require(name.find_first_of(".\"'", name.rfind(':') + 1) == std::string::npos,
            "and neither a name nor a quote in front of it");
  }
  require(namesInstance(" " + text + "\t") == names, "blanks around the text make no difference");
  require(namesInstance("root\\cimv2:" + text) == names, "nor does a namespace in front");
  require(namesInstance("C=\"" + text + "\""), "any quoted text is the value of a key");
  require(!namesInstance("C.D=\"" + text + "\""), "a key with a name is not an unnamed one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // On the heap, where the sanitizer sees an access beyond it.
  const std::string path(fuzzing::textOf(data, size));
  const auto [className, deviceId] = readObjectPath(path);
  checkClassText(className);
  checkClassText(path);

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
