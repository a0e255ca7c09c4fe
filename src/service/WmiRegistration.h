#pragma once

#include <windows.h>
#include <wbemprov.h>

namespace service {

/// Registers the provider object and the event provider with WMI, starts the event thread, pumps
/// messages on the calling thread until WM_QUIT, and withdraws both registrations.
/// Errors: a failed registration of the provider object is ignored; a failure of the event provider
/// returns its status at once.
HRESULT Process_DecoupledInstance();

/// Creates the provider object and registers it as "QuillmonService" in "root\cimv2". Sets
/// `registrar` to null on failure.
HRESULT RegisterDecoupledInstance(IWbemDecoupledRegistrar** registrar);

/// Registers the event provider under the same name and starts the event thread. Sets
/// `eventProvider` to null on failure.
HRESULT StartEventProvider(IWbemDecoupledBasicEventProvider** eventProvider);

} // namespace service
