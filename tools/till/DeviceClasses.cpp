#include "till/DeviceClasses.h"

#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofClasses.h"

#include <algorithm>

namespace till {
namespace {

constexpr std::string_view kBase = "UPOS_Device";

/// By the names of the classes in lower case. A superclass comes before its subclasses.
std::map<std::string, PropertyTypeTable> deviceClasses() {
  std::map<std::string, PropertyTypeTable> classes;
  for (const ctl::MofClass& each : ctl::kMofClasses) {
    const auto superclass = classes.find(lowered(each.superclass));
    if (superclass != classes.end()) {
      classes[lowered(each.name)] = superclass->second;
    } else if (each.name == kBase) {
      classes[lowered(each.name)] = {};
    } else {
      continue; // an event
    }
    for (const ctl::MofProperty& property : ctl::kMofProperties) {
      if (std::string_view(property.className) == each.name) {
        classes[lowered(each.name)][lowered(property.property)] = property.type;
      }
    }
  }
  return classes;
}

} // namespace

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), ctl::lower);
  return result;
}

const PropertyTypeTable* propertiesOf(std::string_view className) {
  static const std::map<std::string, PropertyTypeTable> classes = deviceClasses();
  const auto found = classes.find(lowered(className));
  return found == classes.end() ? nullptr : &found->second;
}

} // namespace till
