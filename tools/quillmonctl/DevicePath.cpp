#include "quillmonctl/DevicePath.h"

#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofClasses.h"

#include <algorithm>
#include <iterator>

namespace ctl {
namespace {

constexpr std::string_view kPrefix = "UPOS_";
constexpr std::string_view kAllDevices = "UPOS_LogicalDevice";
// "=" and a quote or "@" only stand in a path; "\\" and ":" begin one with a namespace.
constexpr std::string_view kPathMarks = "=\"@\\:";

} // namespace

std::string className(std::string_view text) {
  if (text.empty()) {
    return std::string(kAllDevices);
  }
  // A name with an underscore is a class's whole name; WMI's own begin with two of them.
  const bool isWhole = text.find('_') != std::string_view::npos;
  return isWhole ? std::string(text) : std::string(kPrefix).append(text);
}

std::string objectPath(std::string_view text) {
  if (text.find_first_of(kPathMarks) != std::string_view::npos) {
    return std::string(text);
  }
  const std::size_t slash = text.find('/');
  const bool hasClass = slash != std::string_view::npos;
  const std::string cls = className(hasClass ? text.substr(0, slash) : std::string_view());
  return cls + ".DeviceID=\"" + std::string(hasClass ? text.substr(slash + 1) : text) + "\"";
}

bool isDeviceId(std::string_view text) {
  return text.find('/') == std::string_view::npos &&
         text.find_first_of(kPathMarks) == std::string_view::npos;
}

const char* categoryClass(std::string_view category) {
  if (category.empty()) {
    return nullptr;
  }
  const std::string wanted = className(category);
  const auto* const found =
      std::find_if(std::begin(kMofClasses), std::end(kMofClasses),
                   [&](const MofClass& each) { return equalsIgnoreCase(each.name, wanted); });
  return found != std::end(kMofClasses) ? found->name : nullptr;
}

std::string classOf(std::string_view path) {
  path = path.substr(0, path.find_first_of("=\""));
  path.remove_prefix(path.rfind(':') + 1); // the namespace; npos + 1 is 0
  return std::string(path.substr(0, path.find('.')));
}

} // namespace ctl
