#pragma once

#include "ComObject.h"
#include "win/Boundary.h"

#include <atomic>

namespace wmi_host {

using test_support::adopt;
using test_support::ComObject;
using win::comBoundary;
using win::wbemResult;

/// The numbers of existing objects of this process.
struct LiveCounts {
  std::atomic<long> objects = 0;  // class objects
  std::atomic<long> services = 0; // namespaces and enumerators
  std::atomic<long> sinks = 0;    // response and event sinks
};
inline LiveCounts liveCounts;

/// Counts the object that it is a member of.
class LiveCount {
public:
  explicit LiveCount(std::atomic<long>& count) noexcept : count_(count) { ++count_; }
  LiveCount(const LiveCount&) = delete;
  LiveCount& operator=(const LiveCount&) = delete;
  ~LiveCount() { --count_; }

private:
  std::atomic<long>& count_;
};

} // namespace wmi_host
