#pragma once

#include <functional>

namespace wmi_host {

/// Runs `work`, which must not throw, on another thread of the multithreaded apartment, and returns
/// at once. The threads are reused and never end: a detached thread that ends in a DLL can loop
/// forever in the C runtime's clean-up with the loader lock held, which blocks all new threads.
void runOnThread(std::function<void()> work);

} // namespace wmi_host
