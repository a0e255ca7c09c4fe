#pragma once

#include "provider/PropertyTypes.h"

#include <windows.h>
#include <wbemcli.h>

#include <atomic>
#include <cstdint>

namespace provider {

/// What the provider keeps for the whole process: set up by Initialize, read by every request.
///
/// Threads: any. Never destroyed, because WMI's threads may still be inside at the end.
struct ProviderState {
  /// Provider objects in existence; interlocked.
  LONG volatile liveObjects = 0;
  /// The admission limit as configured.
  std::atomic<std::uint32_t> maxQueryThreads = 0;
  /// Null until the first Initialize. An old semaphore stays open, see Initialize.
  std::atomic<HANDLE> admissionSemaphore = nullptr;
  /// Carries a reference that is never released, so a request may use the pointer it has read
  /// although a later Initialize replaces it.
  std::atomic<IWbemServices*> namespaceServices = nullptr;
  PropertyTypes propertyTypes;
};

ProviderState& providerState() noexcept;

} // namespace provider
