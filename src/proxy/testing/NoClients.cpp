#include "proxy/SendToClients.h"

/// Replaces the event server's sender in tests.
void sendToClients(const std::string&) {}
