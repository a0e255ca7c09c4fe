#pragma once

#include <functional>
#include <string>
#include <vector>

/// Stands in for the trace log in unit tests: records each message as the log would hold it, byte
/// by byte, but for the time stamp before it and the CR LF behind it. Linked in place of the real
/// one; always switched on unless a test turns it off. Safe from any thread.
namespace recorded_trace {
std::vector<std::string> lines();
void clear();
void setSwitchedOn(bool on);
/// How many lines were traced, switched on or not: the real log looks its event up for each.
int timesAsked();
/// Called with each line before it is recorded; for what must hold at that moment. Empty: nothing.
void setObserver(std::function<void(const std::string& line)> observer);
} // namespace recorded_trace
