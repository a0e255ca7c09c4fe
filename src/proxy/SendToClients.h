#pragma once

#include <string>

/// Sends `text` to every device server that is connected to the event socket server of the process.
/// Any thread; errors are not reported. Stands apart from the server so that what only sends
/// includes no socket header.
void sendToClients(const std::string& text);
