#pragma once

#include "Provider.h"

#include <cstdint>

namespace bench::floor {

/// Forward the events of one strategy to WMI, with only sockets, the XML library and WMI. A stream
/// event is also handed over from the receiving thread, as the design requires. They do not return.
[[noreturn]] void forwardDatagrams(std::uint16_t port, IWbemServices& services,
                                   IWbemObjectSink& sink);
[[noreturn]] void forwardStream(std::uint16_t port, IWbemServices& services, IWbemObjectSink& sink,
                                PreparedDevices& devices);

} // namespace bench::floor
