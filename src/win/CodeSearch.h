#pragma once

namespace win {

/// From now on this process looks for code that is named without a path in the system's folder
/// only, not beside the program, in the current directory or along PATH, and takes none from
/// another machine or from files that an untrusted process wrote. Where the system refuses one of
/// these, nothing changes.
///
/// Called first of all, by the first thread. What the program imports is in the system's folder
/// anyway (tests/system/test_binary.py).
void loadCodeFromSystemOnly() noexcept;

} // namespace win
