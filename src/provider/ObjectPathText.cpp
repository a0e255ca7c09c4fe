#include "provider/ObjectPathText.h"

ObjectPathText readObjectPath(std::string_view path) {
  // npos + 1 is 0, and a length that wraps round reaches to the end: clients with quoteless paths
  // get the whole text as the device id.
  const std::size_t start = path.find('"') + 1;
  const std::size_t length = path.rfind('"') - start;
  return {std::string(path.substr(0, path.find('.'))), std::string(path.substr(start, length))};
}
