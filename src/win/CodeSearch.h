#pragma once

namespace win {

/// Restricts the DLL search of this process to the system folder and its subfolder wbem, where
/// WMI's own servers lie, against planted DLLs: DLLs named without a path are not looked for beside
/// the program, in the current directory or along PATH; images from remote devices and images with
/// a low integrity label are not loaded. Irreversible.
///
/// Threads: the first thread, before anything else. Errors: a setting that the system refuses or
/// does not know is skipped. All static imports are in the system folder anyway
/// (tests/system/test_binary.py).
void loadCodeFromSystemOnly() noexcept;

} // namespace win
