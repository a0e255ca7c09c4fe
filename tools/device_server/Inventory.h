#pragma once

#include "device_server/Till.h"

#include <string>
#include <string_view>
#include <vector>

namespace till {

/// What reading an inventory gives: the till, and remarks about what will not work as it stands
/// (an unknown type word, a device that the service discards), each "NAME:LINE: text".
struct Inventory {
  Till till;
  std::vector<std::string> warnings;
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

/// The same from a file. Throws std::runtime_error, also when the file cannot be read.
Inventory loadInventory(const std::string& path);

/// A whole file. Throws std::runtime_error "PATH: reason".
std::string readFile(const std::string& path);

} // namespace till
