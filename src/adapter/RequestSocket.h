#pragma once

#include <string>

/// One exchange with the device server's request socket: connects to 127.0.0.1, sends `request`
/// framed between ESC and BS, returns the framed answer. Empty when the exchange failed, or was
/// skipped because the device server was down a moment ago.
///
/// Threads: any; each exchange has a socket of its own. Blocks for as long as the device server
/// keeps the connection open without answering. Errors are traced only.
std::string exchangeRequest(const std::string& request);
