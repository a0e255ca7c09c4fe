#include "till/DeviceClasses.h"

#include "quillmonctl/MofClasses.h"

#include <algorithm>

namespace till {
namespace {

constexpr std::string_view kBase = "UPOS_Device";

char lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/// By the names of the classes in lower case. A superclass comes before its subclasses.
std::map<std::string, PropertyTypeTable> deviceClasses() {
  std::map<std::string, PropertyTypeTable> classes;
  for (const ctl::MofSuperclass& each : ctl::kMofSuperclasses) {
    const auto superclass = classes.find(lowered(each.superclass));
    if (superclass != classes.end()) {
      classes[lowered(each.className)] = superclass->second;
    } else if (each.className == kBase) {
      classes[lowered(each.className)] = {};
    } else {
      continue; // an event
    }
    for (const ctl::MofProperty& property : ctl::kMofProperties) {
      if (std::string_view(property.className) == each.className) {
        classes[lowered(each.className)][lowered(property.property)] = property.type;
      }
    }
  }
  return classes;
}

} // namespace

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, lower, lower);
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), lower);
  return result;
}

const PropertyTypeTable* propertiesOf(std::string_view className) {
  static const std::map<std::string, PropertyTypeTable> classes = deviceClasses();
  const auto found = classes.find(lowered(className));
  return found == classes.end() ? nullptr : &found->second;
}

} // namespace till
