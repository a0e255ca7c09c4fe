#pragma once

#include <string>

/// The event by which `doctor --probe-events` tells whether events arrive. It comes from no device:
/// its class, its id and its word are nobody else's. The word is none of those that change the
/// proxy strategy's cache, so no device is left there. The maker is one whose events are published.
namespace ctl {

std::string probeDocument(const std::string& id);

/// As the adapter strategy's event port takes it: framed, in one datagram.
std::string probeDatagram(const std::string& id);

/// Selects that event alone.
std::string probeQuery(const std::string& id);

} // namespace ctl
