#pragma once

#include "proxy/CIMDevice.h"

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// The proxy strategy's devices, in the order in which they came, one per device id (compared to
/// the letter).
///
/// A stored device never changes: whoever changes one stores a changed copy in its place
/// (`replace`). So a reader that was handed references keeps what it was handed, unchanged, for as
/// long as it holds them, while devices are changed and removed; it sees each device as it was
/// before or after an event, never in between.
///
/// Threads: add, replace and remove are one thread's, the event thread's; the rest is for any, at
/// the same time. The lock is held for a look-up or for the walk over the list, never while a line
/// is traced or a device copied.
/// Costs: find, add, replace, remove and a selection by id from all devices do not depend on the
/// number of devices. Errors: std::bad_alloc only; the container is then unchanged.
class CIMContainer {
public:
  using Reference = std::shared_ptr<const CIMDevice>;

  /// The process's container: made on first use, never destroyed.
  static CIMContainer& getInstance();

  CIMContainer() = default;
  CIMContainer(const CIMContainer&) = delete;
  CIMContainer& operator=(const CIMContainer&) = delete;

  /// The stored device of the given device's id, or null.
  Reference find(const CIMDevice& device) const;
  /// Appends a copy; a device whose id is stored already is ignored.
  void add(const CIMDevice& device);
  /// Puts a copy in the place of the stored device of that id; nothing without one.
  void replace(const CIMDevice& device);
  /// Removes the stored device of that id; nothing without one.
  void remove(const CIMDevice& device);
  /// The devices of that class, in order; all of them for "UPOS_LogicalDevice".
  std::vector<Reference> getInstances(const std::string& className) const;

  struct Selection {
    std::size_t count = 0; ///< how many devices getInstances would list
    Reference device;      ///< the one with the id; null without one
  };
  /// As getInstances, trace lines included, for a caller that wants one of the devices only.
  Selection select(const std::string& className, const std::string& id) const;

private:
  struct Record {
    std::string id; // the index refers to it
    Reference device;
  };
  using Records = std::list<Record>;

  mutable std::mutex mutex_; // guards the rest
  Records records_;
  // Names each record by the record's own id, and changes in add and remove only.
  std::unordered_map<std::string_view, Records::iterator> index_;
  std::unordered_map<std::string, std::size_t> classCounts_;
};
