#include "service/Process.h"

#include "service/WmiRegistration.h"
#include "trace/UPOSLog.h"

#include <objbase.h>

using trace::UPOSLog;

namespace service {

namespace {

HRESULT InitialiseComSecurity(DWORD authnLevel, DWORD impLevel) {
  HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  if (SUCCEEDED(result)) {
    result = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, authnLevel, impLevel, nullptr,
                                  EOAC_DYNAMIC_CLOAKING, nullptr);
  }
  if (FAILED(result)) {
    CoUninitialize();
  }
  return result;
}

} // namespace

HRESULT Process() noexcept {
  HRESULT result = InitialiseComSecurity(RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE);
  if (SUCCEEDED(result)) {
    try {
      result = Process_DecoupledInstance();
    } catch (...) {
      // By design swallowed: the result is then that of the COM start-up.
    }
    CoUninitialize();
  }
  UPOSLog::trace("[Process] exit t_Result = %i", result);
  return result;
}

} // namespace service
