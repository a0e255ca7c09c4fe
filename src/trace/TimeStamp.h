#pragma once

#include <ctime>
#include <string>

namespace trace {

/// The time stamp of a trace line: "month/day/year hour:minute:second" and a trailing blank.
/// Threads: any. Errors: std::bad_alloc only.
std::string timeStamp(const std::tm& local);

} // namespace trace
