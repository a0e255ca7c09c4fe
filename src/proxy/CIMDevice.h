#pragma once

#include "model/DeviceEvent.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// One device as the proxy strategy caches it: class, id, the WMI classes that it is published
/// under, and its typed fields. A value: copies are independent.
///
/// Threads: as any value, one writer or many readers. Errors: std::bad_alloc only.
class CIMDevice {
public:
  /// A field's value is kept as text beside its type word.
  struct Value {
    std::string type;
    std::string value;
  };
  /// Ordered by name, names unique.
  using Fields = std::map<std::string, Value>;

  /// `record`: fields of three strings each, taken in order. "uint32" and "uint64" are read as a
  /// C++ stream reads a decimal number and stored as the number's text: no number gives 0, too
  /// large a number the largest one, a negative number wraps. "boolean" is true for the texts
  /// "true" and "TRUE" only. "string" is stored as it is; a field of any other type is not stored.
  CIMDevice(std::string className, std::string deviceId, const Instance& record);
  explicit CIMDevice(const DeviceEvent& event);

  std::string getClassName() const { return className_; }
  std::string getDeviceId() const { return deviceId_; }
  /// The class name is that of the event which brought the device, compared to the letter.
  bool hasClass(std::string_view className) const noexcept { return className_ == className; }
  bool hasId(std::string_view id) const noexcept { return deviceId_ == id; }
  /// In order of publication; a class may stand there several times.
  const std::vector<std::string>& instances() const noexcept { return instances_; }
  const Fields& fields() const noexcept { return fields_; }

  void addInstance(const std::string& className);
  /// Removes the first entry of that name, if there is one.
  void deleteInstance(const std::string& className);
  std::size_t instanceCount() const noexcept { return instances_.size(); }

  /// Takes over every field of `other`; fields that it lacks stay.
  void merge(const CIMDevice& other);

  // Each replaces a field of the same name, type and value.
  void addUint32Field(const std::string& name, std::uint32_t value);
  void addUint64Field(const std::string& name, std::uint64_t value);
  void addStringField(const std::string& name, const std::string& value);
  void addBooleanField(const std::string& name, bool value);

private:
  void addRecordField(const Field& field);

  std::string className_;
  std::string deviceId_;
  std::vector<std::string> instances_;
  Fields fields_;
};
