#pragma once

#include <windows.h>
#include <wbemprov.h>

namespace service {

/// The event thread's parameter. Allocated by the starter, owned by the thread. Each interface
/// pointer holds a reference.
struct EventThreadContext {
  IWbemServices* services = nullptr;
  IWbemObjectSink* sink = nullptr;
  void* reserved = nullptr;
  IWbemDecoupledBasicEventProvider* eventProvider = nullptr;
};

/// The event thread: forwards every device event of the selected strategy to WMI as a
/// "QuillmonEvent" until the process ends. Opens the event port first; retries a failed open with
/// one trace line per attempt.
/// `context`: an EventThreadContext.
/// Errors: an event is lost for which memory runs out or a call of the system fails
/// (std::system_error); without COM, and after any other exception, the thread ends.
DWORD WINAPI EventThread(void* context) noexcept;

} // namespace service
