#pragma once

#include <string>

namespace proxy {

/// Sends `text` to every device server that is connected to the process's TCPServer. Declared here
/// so that plain sources can send without a socket header. Threads: any. Errors: not reported.
void sendToClients(const std::string& text);

} // namespace proxy
