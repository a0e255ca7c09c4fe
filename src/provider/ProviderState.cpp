#include "provider/ProviderState.h"

namespace provider {

ProviderState& providerState() {
  static ProviderState& state = *new ProviderState;
  return state;
}

} // namespace provider
