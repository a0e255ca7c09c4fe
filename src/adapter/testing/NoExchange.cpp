#include "adapter/RequestSocket.h"

/// Replaces the request exchange in tests.
std::string exchangeRequest(const std::string&) {
  return {};
}
