#pragma once

#include "win/Handles.h"

namespace bench::floor {

/// Looks for the event that switches the trace on, once per line. By design that is all that a line
/// costs while the trace is off.
inline void lookForTraceSwitch(std::size_t lines) {
  for (; lines != 0; --lines) {
    const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, L"Global\\TRC_QUILLMON"));
    if (event) {
      WaitForSingleObject(event.get(), 0);
    }
  }
}

} // namespace bench::floor
