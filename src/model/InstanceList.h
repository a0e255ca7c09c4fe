#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace model {

/// One property of a device: name, type word, value.
using Field = std::array<std::string, 3>;
using Fields = std::vector<Field>;

/// One device: its fields in document order, or by name if it comes from the cache. Immutable, so
/// copies share the fields. Threads: any. Errors: std::bad_alloc when fields are taken over.
class Instance {
public:
  Instance() = default;
  explicit Instance(Fields fields) : fields_(std::make_shared<const Fields>(std::move(fields))) {}
  Instance(std::initializer_list<Field> fields) : Instance(Fields(fields)) {}
  /// Shares fields that are part of another shared object.
  explicit Instance(std::shared_ptr<const Fields> fields) noexcept : fields_(std::move(fields)) {}

  std::size_t size() const noexcept { return fields_ != nullptr ? fields_->size() : 0; }
  const Field& operator[](std::size_t index) const noexcept { return (*fields_)[index]; }
  friend bool operator==(const Instance& left, const Instance& right) {
    return left.fields_ == right.fields_ ||
           (left.size() == right.size() && (left.size() == 0 || *left.fields_ == *right.fields_));
  }

private:
  std::shared_ptr<const Fields> fields_;
};

/// The result of a request.
using InstanceList = std::vector<Instance>;

} // namespace model
