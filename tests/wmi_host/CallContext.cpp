#include "CallContext.h"

#include "LiveCounts.h"
#include "ProviderHost.h"
#include "Settings.h"
#include "win/Handles.h"

#include <vector>

namespace wmi_host {
namespace {

/// A copy of the token whose user and groups only deny: an access check that grants a right to
/// particular users or groups fails for it.
win::Handle withoutRights(HANDLE token) {
  alignas(TOKEN_USER) BYTE user[256];
  std::vector<BYTE> groups(4096);
  DWORD size = 0;
  win::Handle result;
  if (!GetTokenInformation(token, TokenUser, user, sizeof user, &size) ||
      !GetTokenInformation(token, TokenGroups, groups.data(), static_cast<DWORD>(groups.size()),
                           &size)) {
    return result;
  }
  std::vector<SID_AND_ATTRIBUTES> denied = {{reinterpret_cast<TOKEN_USER*>(user)->User.Sid, 0}};
  const auto* list = reinterpret_cast<const TOKEN_GROUPS*>(groups.data());
  denied.insert(denied.end(), list->Groups, list->Groups + list->GroupCount);
  CreateRestrictedToken(token, DISABLE_MAX_PRIVILEGE, static_cast<DWORD>(denied.size()),
                        denied.data(), 0, nullptr, 0, nullptr, result.put());
  return result;
}

HRESULT lastError() {
  return HRESULT_FROM_WIN32(GetLastError());
}

class ServerSecurity final : public ComObject<IServerSecurity> {
public:
  HRESULT STDMETHODCALLTYPE QueryBlanket(DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**,
                                         DWORD*) noexcept override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE ImpersonateClient() noexcept override {
    if (HRESULT failed = settings::failure(L"Impersonate"); FAILED(failed)) {
      return failed;
    }
    win::Handle process;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY, process.put())) {
      return lastError();
    }
    if (settings::number(L"CallerWithoutRights") != 0) {
      process = withoutRights(process.get());
      if (!process) {
        return lastError();
      }
    }
    // The least that hosting outside WMI's processes gives: to look at, not to act with.
    auto level = static_cast<SECURITY_IMPERSONATION_LEVEL>(
        settings::number(L"ImpersonationLevel", SecurityIdentification));
    win::Handle token;
    if (!DuplicateTokenEx(process.get(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, nullptr,
                          level, TokenImpersonation, token.put()) ||
        !SetThreadToken(nullptr, token.get())) {
      return lastError();
    }
    isImpersonating_ = true;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RevertToSelf() noexcept override {
    isImpersonating_ = false;
    return SetThreadToken(nullptr, nullptr) ? S_OK : lastError();
  }
  BOOL STDMETHODCALLTYPE IsImpersonating() noexcept override {
    return isImpersonating_ ? TRUE : FALSE;
  }

private:
  ~ServerSecurity() override = default;
  std::atomic<bool> isImpersonating_ = false;
};

} // namespace

CallScope::CallScope() : security_(adopt<IServerSecurity>(new ServerSecurity)) {
  CoSwitchCallContext(security_.Get(), &previous_);
}

CallScope::~CallScope() {
  win::Handle token;
  if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    SetThreadToken(nullptr, nullptr);
    counters::addViolation(L"a call that returned while it impersonated its client");
  }
  IUnknown* ours = nullptr;
  CoSwitchCallContext(previous_, &ours);
}

} // namespace wmi_host
