#pragma once

#include <string>
#include <vector>

/// Stands in for the trace log in unit tests: records each message (formatted, without time stamp
/// and line end) instead of writing it. Linked in place of the real one; always switched on unless
/// a test turns it off. Safe from any thread.
namespace recorded_trace {
std::vector<std::string> lines();
void clear();
void setSwitchedOn(bool on);
/// How often it was asked whether the trace is switched on: a call of the system each time.
int timesAsked();
bool consoleEcho();
} // namespace recorded_trace
