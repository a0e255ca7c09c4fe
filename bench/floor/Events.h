#pragma once

#include "Provider.h"

#include <cstdint>

namespace bench::floor {

/// Forwards the events of one strategy to WMI with nothing but sockets, XML library and WMI; those
/// of the stream also with the hand-over from the receiving thread that is its design. Neither
/// returns.
[[noreturn]] void forwardDatagrams(std::uint16_t port, IWbemServices& services,
                                   IWbemObjectSink& sink);
[[noreturn]] void forwardStream(std::uint16_t port, IWbemServices& services, IWbemObjectSink& sink,
                                PreparedDevices& devices);

} // namespace bench::floor
