#pragma once

#include "provider/PropertyTypes.h"

#include <windows.h>
#include <wbemcli.h>

#include <atomic>
#include <cstdint>

namespace provider {

/// The provider's process-wide state: set by Initialize, read by every request. Never destroyed,
/// since WMI's threads may run until the process ends. Threads: any.
struct ProviderState {
  /// Number of provider objects; changed by interlocked operations.
  LONG volatile liveObjects = 0;
  /// The admission limit as configured.
  std::atomic<std::uint32_t> maxQueryThreads = 0;
  /// Null until the first Initialize. Previous semaphores stay open, see Initialize.
  std::atomic<HANDLE> admissionSemaphore = nullptr;
  /// Its reference is never released, so a request may keep using the pointer after a later
  /// Initialize has replaced it.
  std::atomic<IWbemServices*> namespaceServices = nullptr;
  PropertyTypes propertyTypes;
};

ProviderState& providerState() noexcept;

} // namespace provider
