#include "provider/ProviderState.h"

#include <new>

namespace provider {

ProviderState& providerState() noexcept {
  // Static storage: works even when the heap is exhausted. Never destroyed.
  alignas(ProviderState) static unsigned char memory[sizeof(ProviderState)];
  static ProviderState& state = *new (memory) ProviderState;
  return state;
}

} // namespace provider
