#pragma once

#include <array>
#include <string>
#include <vector>

namespace model {

/// One property of a device: name, type word, value.
using Field = std::array<std::string, 3>;
/// One device: its fields in document order.
using Instance = std::vector<Field>;
/// The result of a request.
using InstanceList = std::vector<Instance>;

} // namespace model
