#pragma once

#include <string>

/// A message as it may stand in the log. Text of a device server or a client is traced as it came,
/// line breaks included, and must not pass for a line of the trace or, on a console, cover one up:
/// - A digit at the beginning of a line gets a blank before it, so that every line of the log that
///   begins with a digit, the month of a time stamp, was written by the trace.
/// - A control character other than a tab, LF and CR LF is shown as "?".
/// Any other message is left as it is, byte by byte. Any thread; may throw std::bad_alloc only.
std::string traceText(std::string message);
