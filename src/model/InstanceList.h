#pragma once

#include <string>
#include <utility>
#include <vector>

/// One property of a device: exactly three strings, in the order name, type word, value.
using Field = std::vector<std::string>;

/// Moves the strings in, where an initializer list would copy each of them.
inline Field makeField(std::string name, std::string type, std::string value) {
  Field field;
  field.reserve(3);
  field.push_back(std::move(name));
  field.push_back(std::move(type));
  field.push_back(std::move(value));
  return field;
}

/// One device: its fields in document order.
using Instance = std::vector<Field>;
/// What a request for devices yields.
using InstanceList = std::vector<Instance>;
