#pragma once

#include "model/InstanceList.h"

#include <cstdint>
#include <string>

/// Answers one enumeration or one lookup of the WMI provider, in whichever strategy was chosen, and
/// lets the provider walk the result by index.
///
/// Owner: the provider, one per WMI call; one thread. What it asks lives inside one operation.
/// Errors: the status of an enumeration, an empty result, trace lines. Exceptions pass through.
class UPOSAdapter {
public:
  UPOSAdapter();
  ~UPOSAdapter();
  UPOSAdapter(const UPOSAdapter&) = delete;
  UPOSAdapter& operator=(const UPOSAdapter&) = delete;

  /// All instances of the class. `*status` is 0 on success; otherwise the result stays as it was.
  void enumerateInstances(std::string className, std::uint32_t* status);
  /// The one instance with this key. The outcome shows in the number of instances only.
  void getInstance(std::string className, std::string key);

  [[nodiscard]] std::int32_t getInstanceCount() const noexcept;
  /// The number of properties of an instance; 0, and nothing selected, when there is no such one.
  std::int32_t selectInstance(std::int32_t index);
  /// One string of one property of one instance: item 0 name, 1 type word, 2 value. Where an index
  /// is out of range: the first string of the property that was read last, empty without one.
  /// Inline: it is called three times for each field of an answer.
  void getPropertyItem(std::string* out, std::int32_t instanceIndex, std::int32_t propertyIndex,
                       std::int32_t item) {
    if (has(instances_, instanceIndex)) {
      const Instance& instance = instances_[static_cast<std::size_t>(instanceIndex)];
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
    return static_cast<std::uint32_t>(index) < list.size(); // a negative index is far above
  }
  void setInstances(InstanceList instances);

  // Unused, always empty; kept because the order of the fields is fixed.
  std::string unused1_;
  std::string unused2_;
  InstanceList instances_;
  const Field* currentProperty_ = nullptr; ///< the property that was read last, in instances_
  std::string lastName_; ///< what such a property was called whose list has been replaced
};
