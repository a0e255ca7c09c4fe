#pragma once

#include <windows.h>
#include <wbemprov.h>

/// What the event thread works with; allocated by its starter, owned by the thread. Each interface
/// pointer carries a reference of its own.
struct EventThreadContext {
  IWbemServices* services = nullptr;
  IWbemObjectSink* sink = nullptr;
  void* reserved = nullptr;
  IWbemDecoupledBasicEventProvider* eventProvider = nullptr;
};

/// Forwards every device event of the chosen strategy to WMI as a "QuillmonEvent", for the life of
/// the process. The event port is opened once at the start; where that failed, the wait for the
/// first event tries again, one trace line an attempt.
/// An event that there is no memory for is lost alone.
/// `context`: an EventThreadContext. Ends only without COM or by an exception.
DWORD WINAPI EventThread(void* context) noexcept;
