#pragma once

#include <string>
#include <vector>

/// One property of a device: exactly three strings, in the order name, type word, value.
using Field = std::vector<std::string>;
/// One device: its fields in document order.
using Instance = std::vector<Field>;
/// What a request for devices yields.
using InstanceList = std::vector<Instance>;
