#include "proxy/SendToClients.h"

namespace proxy {

/// Replaces the event server's sender in tests.
void sendToClients(const std::string&) {}

} // namespace proxy
