#pragma once

#include <string>

namespace adapter {

/// Exchanges one request with the device server: connects to its request socket on 127.0.0.1, sends
/// `request` framed, returns the content of the framed answer. Empty when the exchange failed or
/// was skipped during the back-off.
///
/// Threads: any; each exchange has its own socket. Blocks while the device server keeps the
/// connection open without answering. Errors: traced; std::bad_alloc.
std::string exchangeRequest(const std::string& request);

} // namespace adapter
