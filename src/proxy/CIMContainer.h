#pragma once

#include "proxy/CIMDevice.h"

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace proxy {

/// The proxy strategy's device cache: one device per device id (case-sensitive), in order of
/// arrival.
///
/// Stored devices are immutable: a change stores a changed copy (`replace`). A reader therefore
/// sees each device as it was before or after an event, never in between, and its references stay
/// valid while devices are changed and removed.
///
/// Threads: add, replace and remove on the event thread only; the rest on any thread, concurrently.
/// The lock is held for a look-up or for the walk over the list, never while tracing or copying a
/// device. Errors: std::bad_alloc, which leaves the container unchanged.
/// Complexity: find, add, replace, remove and select from all devices take constant time.
class CIMContainer {
public:
  using Reference = std::shared_ptr<const CIMDevice>;

  /// The process's container: created on first use, never destroyed.
  static CIMContainer& getInstance();

  CIMContainer() = default;
  CIMContainer(const CIMContainer&) = delete;
  CIMContainer& operator=(const CIMContainer&) = delete;

  // A device is identified by its id.

  /// The stored device; null if there is none.
  Reference find(const CIMDevice& device) const;
  /// Appends a copy; does nothing if the device is already stored.
  void add(const CIMDevice& device);
  /// Replaces the stored device by a copy; does nothing if there is none.
  void replace(const CIMDevice& device);
  /// Removes the stored device; does nothing if there is none.
  void remove(const CIMDevice& device);
  /// The devices of the class, in order; all devices for "UPOS_LogicalDevice".
  std::vector<Reference> getInstances(const std::string& className) const;

  struct Selection {
    std::size_t count = 0; ///< number of devices that getInstances would return
    Reference device;      ///< the one with the id; null if there is none
  };
  /// As getInstances, including its trace lines, for a caller that needs one device.
  Selection select(const std::string& className, const std::string& id) const;

private:
  struct Record {
    std::string id; // referenced by the index
    Reference device;
  };
  using Records = std::list<Record>;

  std::vector<Reference> devicesOf(const std::string& className) const;

  mutable std::mutex mutex_; // guards the rest
  Records records_;
  // By Record::id.
  std::unordered_map<std::string_view, Records::iterator> index_;
  std::size_t listedByName_ = 0; ///< devices whose class is "UPOS_LogicalDevice" itself
};

} // namespace proxy
