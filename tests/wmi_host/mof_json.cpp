// mof_json FILE: prints the classes of a MOF file as a JSON list, one class a line, superclasses
// first. Each has its own properties only. scripts/wmi-classes keeps what it prints.

#include "MofReader.h"

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;
using wmi_host::ascii;

std::string description(const std::vector<wmi_host::Qualifier>& qualifiers) {
  const wmi_host::Qualifier* found = wmi_host::findQualifier(qualifiers, L"Description");
  return found != nullptr ? ascii(std::get<std::wstring>(found->value.items.at(0))) : "";
}

Json toJson(const wmi_host::Class& type) {
  Json properties = Json::array();
  for (const wmi_host::Property& property : type.properties) {
    if (property.origin == type.name) {
      properties.push_back({{"name", ascii(property.name)},
                            {"type", ascii(property.cimType)},
                            {"key", property.isKey()},
                            {"description", description(property.qualifiers)}});
    }
  }
  return {{"name", ascii(type.name)},
          {"superclass", type.superclass ? ascii(type.superclass->name) : ""},
          {"description", description(type.qualifiers)},
          {"properties", properties}};
}

std::size_t depth(const wmi_host::ClassPointer& type) {
  return type ? 1 + depth(type->superclass) : 0;
}

} // namespace

int main(int argc, char* argv[]) {
  if (argc != 2) {
    std::cerr << "usage: mof_json FILE\n";
    return 2;
  }
  const wmi_host::Repository system = wmi_host::systemRepository();
  wmi_host::Repository repository = system;
  try {
    wmi_host::readMofFile(repository, argv[1], argv[1]);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  std::vector<wmi_host::ClassPointer> classes = repository.derivedFrom(L"");
  std::stable_sort(classes.begin(), classes.end(),
                   [](const auto& one, const auto& other) { return depth(one) < depth(other); });
  const char* separator = "[\n";
  for (const wmi_host::ClassPointer& type : classes) {
    if (!system.findClass(type->name)) {
      std::cout << separator << toJson(*type).dump();
      separator = ",\n";
    }
  }
  std::cout << "\n]\n";
}
