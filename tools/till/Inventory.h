#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace till {

inline constexpr std::string_view kDeviceIdField = "DeviceID";
inline constexpr std::string_view kMakerField = "ManufacturerName";

/// The type words that the service knows.
inline constexpr std::array<std::string_view, 6> kTypeWords = {"string",  "uint32",     "uint64",
                                                               "boolean", "ArrayInt32", "datetime"};

/// One property of a device as it travels: name, type word, value. All texts are UTF-8.
struct Field {
  std::string name;
  std::string type;
  std::string value;
};

struct Device {
  std::string className; ///< its WMI class, "UPOS_Scanner"
  std::string id;
  bool attached = true;
  std::vector<Field> fields; ///< without DeviceID, which is `id`

  /// The UnifiedPOS category: the class name without "UPOS_".
  std::string_view category() const;
  /// Null when the device has no such field.
  const Field* field(std::string_view name) const;
  /// Empty when the device has no such field.
  std::string_view value(std::string_view name) const;
};

/// The class that every device belongs to besides its own.
inline constexpr std::string_view kEveryDevice = "UPOS_LogicalDevice";
inline constexpr std::string_view kClassPrefix = "UPOS_";

/// The devices of one till, in the order of their file; ids are unique. One thread at a time.
class Inventory {
public:
  /// What will not work as it stands (an unknown type word, a device that the service discards),
  /// each "NAME:LINE: text".
  std::vector<std::string> warnings;

  /// False, and nothing is added, when the id is taken.
  bool add(Device device);
  /// Null when there is no such device.
  Device* find(const std::string& id);
  const std::vector<Device>& devices() const { return devices_; }
  std::size_t attachedCount() const { return attachedOf(kEveryDevice).size(); }

  /// The attached devices of a class, in order; `kEveryDevice` gives all of them.
  std::vector<const Device*> attachedOf(std::string_view className) const;

private:
  std::vector<Device> devices_;
  std::unordered_map<std::string, std::size_t> places_; ///< in devices_, by id
};

/// Reads an inventory document:
///
///   <till name="Till 7">
///     <device class="UPOS_Scanner" id="SCANNER1" attached="true">
///       <field name="ManufacturerName" type="string">Veltran</field>
///     </device>
///   </till>
///
/// `name` stands before each message. Throws std::runtime_error "NAME:LINE: text".
Inventory readInventory(std::string_view document, const std::string& name);

/// A whole file. Throws std::runtime_error "PATH: reason".
std::string readFile(const std::string& path);

} // namespace till
