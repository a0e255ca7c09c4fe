#pragma once

#include "win/Handles.h"

namespace bench::floor {

/// Looks for the event that switches the trace on, once for each of so many lines: the design has
/// every line of a trace that is off do that, and nothing else.
inline void lookForTraceSwitch(std::size_t lines) {
  for (; lines != 0; --lines) {
    const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, L"Global\\TRC_QUILLMON"));
    if (event) {
      WaitForSingleObject(event.get(), 0);
    }
  }
}

} // namespace bench::floor
