#include "provider/ProviderState.h"

#include <new>

namespace provider {

ProviderState& providerState() noexcept {
  // In memory of its own, so that it can be had when there is none left.
  alignas(ProviderState) static unsigned char memory[sizeof(ProviderState)];
  static ProviderState& state = *new (memory) ProviderState;
  return state;
}

} // namespace provider
