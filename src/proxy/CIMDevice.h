#pragma once

#include "model/DeviceEvent.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace proxy {

/// A cached device of the proxy strategy: class, id, its listings (`instances`, named after the
/// `provider` of the events that made them), and its typed fields. A value type.
///
/// Threads: one writer or many readers. Errors: std::bad_alloc only.
class CIMDevice {
public:
  /// Takes the fields of `record` in order. "uint32" and "uint64" are parsed as a C++ stream parses
  /// a decimal number: invalid text gives 0, overflow the largest number, a negative number wraps.
  /// "boolean" is true for "true" and "TRUE" only. "string" is stored unchanged. Fields of other
  /// types are ignored.
  CIMDevice(std::string className, std::string deviceId, const model::Fields& record);
  explicit CIMDevice(const model::DeviceEvent& event);

  std::string getClassName() const { return className_; }
  std::string getDeviceId() const { return deviceId_; }
  // Case-sensitive, like hasId.
  bool hasClass(std::string_view className) const noexcept { return className_ == className; }
  bool hasId(std::string_view id) const noexcept { return deviceId_ == id; }
  /// The classes in order of publication; a class may occur several times.
  const std::vector<std::string>& instances() const noexcept { return instances_; }
  /// In order of their names, which are unique.
  const model::Fields& fields() const noexcept { return fields_; }

  void addInstance(const std::string& className);
  /// Removes the first occurrence of the class, if any.
  void deleteInstance(const std::string& className);
  std::size_t instanceCount() const noexcept { return instances_.size(); }

  /// Adds or replaces every field of `other`.
  void merge(const CIMDevice& other);

  // Each replaces a field of the same name.
  void addUint32Field(const std::string& name, std::uint32_t value);
  void addUint64Field(const std::string& name, std::uint64_t value);
  void addStringField(const std::string& name, const std::string& value);
  void addBooleanField(const std::string& name, bool value);

private:
  void addRecordField(const model::Field& field);
  void addField(const std::string& name, const char* type, std::string value);

  std::string className_;
  std::string deviceId_;
  std::vector<std::string> instances_;
  model::Fields fields_;
};

} // namespace proxy
