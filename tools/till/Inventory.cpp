#include "till/Inventory.h"

#include "till/Xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace till {
namespace {

/// Nobody's inventory is larger; a larger file is another file named by mistake.
constexpr std::uintmax_t kLargestFile = std::uintmax_t{16} * 1024 * 1024;

class Reader {
public:
  explicit Reader(const std::string& name) : name_(name) {}

  Inventory read(const XmlElement& root) {
    if (root.name != "till") {
      fail(root, fmt::format("the root element is '{}', not 'till'", root.name));
    }
    allowAttributes(root, {"name"});
    for (const XmlElement& child : root.children) {
      if (child.name != "device") {
        fail(child, fmt::format("'{}' has no place in 'till': 'device' is expected", child.name));
      }
      device(child);
    }
    return std::move(result_);
  }

private:
  [[noreturn]] void fail(const XmlElement& where, const std::string& text) const {
    throw std::runtime_error(fmt::format("{}:{}: {}", name_, where.line, text));
  }

  void warn(const XmlElement& where, const std::string& text) {
    result_.warnings.push_back(fmt::format("{}:{}: {}", name_, where.line, text));
  }

  void allowAttributes(const XmlElement& element,
                       std::initializer_list<std::string_view> allowed) const {
    for (const auto& [attribute, value] : element.attributes) {
      if (std::find(allowed.begin(), allowed.end(), attribute) == allowed.end()) {
        fail(element, fmt::format("'{}' has no attribute '{}'", element.name, attribute));
      }
    }
  }

  const std::string& required(const XmlElement& element, std::string_view attribute) const {
    const std::string* value = element.attribute(attribute);
    if (value == nullptr || value->empty()) {
      fail(element, fmt::format("'{}' needs the attribute '{}'", element.name, attribute));
    }
    return *value;
  }

  void device(const XmlElement& element) {
    allowAttributes(element, {"class", "id", "attached"});
    Device result;
    result.className = required(element, "class");
    if (!isClassName(result.className)) {
      fail(element, fmt::format("'{}' is not a class such as UPOS_Scanner", result.className));
    }
    result.id = required(element, "id");
    if (result.id.find_first_of("\"\\") != std::string::npos) {
      warn(element,
           fmt::format("no client can fetch '{}' by its path: the service leaves the path's "
                       "escapes as they are",
                       result.id));
    }
    if (const std::string* attached = element.attribute("attached")) {
      if (*attached != "true" && *attached != "false") {
        fail(element, fmt::format("attached is '{}': 'true' or 'false' is expected", *attached));
      }
      result.attached = *attached == "true";
    }
    for (const XmlElement& child : element.children) {
      field(child, result);
    }
    if (result.value(kMakerField).empty()) {
      warn(element,
           fmt::format("'{}' has no ManufacturerName: the service discards it", result.id));
    }
    if (!result_.add(result)) {
      fail(element, fmt::format("a second device '{}'", result.id));
    }
  }

  void field(const XmlElement& element, Device& device) {
    if (element.name != "field") {
      fail(element,
           fmt::format("'{}' has no place in 'device': 'field' is expected", element.name));
    }
    allowAttributes(element, {"name", "type"});
    if (!element.children.empty()) {
      fail(element.children.front(), "a field holds text only");
    }
    Field result{required(element, "name"), required(element, "type"), element.text};
    if (result.name == kDeviceIdField) {
      fail(element, "DeviceID is given by the device's attribute 'id'");
    }
    if (device.field(result.name) != nullptr) {
      fail(element, fmt::format("a second field '{}'", result.name));
    }
    if (!isTypeWord(result.type)) {
      warn(element, fmt::format("type word '{}' is unknown to the service: the value stays a text",
                                result.type));
    } else if (!fits(result)) {
      warn(element, fmt::format("'{}' is not a {}", result.value, result.type));
    }
    device.fields.push_back(std::move(result));
  }

  static bool isClassName(std::string_view name) {
    return name.starts_with(kClassPrefix) && name.size() > kClassPrefix.size() &&
           name.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_") ==
               std::string_view::npos;
  }

  static bool isTypeWord(std::string_view word) {
    return std::find(std::begin(kTypeWords), std::end(kTypeWords), word) != std::end(kTypeWords);
  }

  static bool fits(const Field& field) {
    const char* const end = field.value.data() + field.value.size();
    std::uint64_t number = 0;
    if (field.type == "uint32" || field.type == "uint64") {
      const auto [stop, error] = std::from_chars(field.value.data(), end, number);
      return error == std::errc() && stop == end &&
             (field.type == "uint64" || number <= UINT32_MAX);
    }
    return field.type != "boolean" || field.value == "true" || field.value == "false";
  }

  const std::string& name_;
  Inventory result_;
};

} // namespace

std::string_view Device::category() const {
  std::string_view name = className;
  return name.starts_with(kClassPrefix) ? name.substr(kClassPrefix.size()) : name;
}

const Field* Device::field(std::string_view name) const {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [&](const Field& each) { return each.name == name; });
  return found == fields.end() ? nullptr : &*found;
}

std::string_view Device::value(std::string_view name) const {
  const Field* const found = field(name);
  return found == nullptr ? std::string_view() : std::string_view(found->value);
}

bool Inventory::add(Device device) {
  if (!places_.emplace(device.id, devices_.size()).second) {
    return false;
  }
  devices_.push_back(std::move(device));
  return true;
}

Device* Inventory::find(const std::string& id) {
  const auto found = places_.find(id);
  return found == places_.end() ? nullptr : &devices_[found->second];
}

std::vector<const Device*> Inventory::attachedOf(std::string_view className) const {
  std::vector<const Device*> result;
  for (const Device& device : devices_) {
    if (device.attached && (className == kEveryDevice || className == device.className)) {
      result.push_back(&device);
    }
  }
  return result;
}

Inventory readInventory(std::string_view document, const std::string& name) {
  try {
    return Reader(name).read(readXml(document));
  } catch (const XmlError& problem) {
    throw std::runtime_error(fmt::format("{}:{}: {}", name, problem.line(), problem.what()));
  }
}

std::string readFile(const std::string& path) {
  std::error_code problem;
  const std::uintmax_t size = std::filesystem::file_size(path, problem);
  if (problem) {
    throw std::runtime_error(fmt::format("{}: {}", path, problem.message()));
  }
  if (size > kLargestFile) {
    throw std::runtime_error(fmt::format("{}: larger than 16 MiB", path));
  }
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) {
    throw std::runtime_error(fmt::format("{}: cannot be read", path));
  }
  return text;
}

} // namespace till
