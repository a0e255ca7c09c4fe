#include "adapter/RequestSocket.h"

/// Stands in for the request exchange where no request is to leave the process.
std::string exchangeRequest(const std::string&) {
  return {};
}
