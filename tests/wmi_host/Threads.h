#pragma once

#include <functional>

namespace wmi_host {

/// Runs `work`, which lets no exception out, on another thread of the multithreaded apartment, and
/// returns at once. As in WMI's own core the threads are kept for what comes next: in a library a
/// thread that ends may spin for ever with the loader's lock held (the C runtime's clean-up of
/// detached threads), and nobody can begin a thread any more.
void runOnThread(std::function<void()> work);

} // namespace wmi_host
