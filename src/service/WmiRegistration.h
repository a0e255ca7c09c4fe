#pragma once

#include <windows.h>
#include <wbemprov.h>

/// Registers the provider object and the event provider with WMI, starts the event thread, pumps
/// messages on the calling thread until WM_QUIT, and withdraws both registrations. The provider's
/// registration may fail and the events run all the same; a failed event provider ends it at once
/// with that status.
HRESULT Process_DecoupledInstance();

/// Creates the provider object and registers it as "QuillmonService" in "root\cimv2"; on failure
/// `registrar` is null.
HRESULT RegisterDecoupledInstance(IWbemDecoupledRegistrar** registrar);

/// Registers the event provider under the same name and starts the event thread; on failure
/// `eventProvider` is null.
HRESULT StartEventProvider(IWbemDecoupledBasicEventProvider** eventProvider);
