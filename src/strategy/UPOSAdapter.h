#pragma once

#include "model/InstanceList.h"

#include <cstdint>
#include <string>

namespace com::orvex {

/// Answers one enumeration or one lookup of the WMI provider through the selected strategy, and
/// gives access to the result by index.
///
/// Owner and thread: the WMI call.
/// Errors: the status of an enumeration, an empty result, trace lines. Exceptions pass.
class UPOSAdapter {
public:
  UPOSAdapter();
  ~UPOSAdapter();
  UPOSAdapter(const UPOSAdapter&) = delete;
  UPOSAdapter& operator=(const UPOSAdapter&) = delete;

  /// Gets all instances of the class. `*status` is 0 on success; otherwise the result is unchanged.
  void enumerateInstances(std::string className, std::uint32_t* status);
  /// Gets the instance with this key. Reports no status; see getInstanceCount.
  void getInstance(std::string className, std::string key);

  [[nodiscard]] std::int32_t getInstanceCount() const noexcept;
  /// The number of properties of an instance; 0 if `index` is out of range.
  std::int32_t selectInstance(std::int32_t index);
  /// Gets one string of a property: item 0 name, 1 type word, 2 value. If an index is out of range:
  /// the first string of the property read last, or empty text. Inline, since it is called
  /// three times per field.
  void getPropertyItem(std::string* out, std::int32_t instanceIndex, std::int32_t propertyIndex,
                       std::int32_t item) {
    if (has(instances_, instanceIndex)) {
      const model::Instance& instance = instances_[static_cast<std::size_t>(instanceIndex)];
      if (has(instance, propertyIndex)) {
        currentProperty_ = &instance[static_cast<std::size_t>(propertyIndex)];
        *out =
            (*currentProperty_)[has(*currentProperty_, item) ? static_cast<std::size_t>(item) : 0];
        return;
      }
    }
    *out = currentProperty_ != nullptr ? currentProperty_->front() : lastName_;
  }

private:
  template <class List>
  static bool has(const List& list, std::int32_t index) noexcept {
    return static_cast<std::uint32_t>(index) < list.size(); // a negative index becomes a large one
  }
  void setInstances(model::InstanceList instances);

  model::InstanceList instances_;
  const model::Field* currentProperty_ = nullptr; ///< the property read last, in instances_
  std::string lastName_; ///< the name of the property read last in the previous instances_
};

} // namespace com::orvex
