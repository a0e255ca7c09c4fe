#include "CallContext.h"

#include "ProviderHost.h"
#include "Results.h"
#include "Settings.h"
#include "win/Handles.h"

#include <vector>

namespace wmi_host {
namespace {

/// This process's own token without any of its groups and without its user: an access check that
/// grants something to somebody in particular denies it.
win::Handle withoutRights(HANDLE token) {
  std::vector<SID_AND_ATTRIBUTES> denied;
  std::vector<std::vector<BYTE>> buffers;
  for (TOKEN_INFORMATION_CLASS kind : {TokenUser, TokenGroups}) {
    DWORD size = 0;
    GetTokenInformation(token, kind, nullptr, 0, &size);
    std::vector<BYTE>& buffer = buffers.emplace_back(size);
    if (!GetTokenInformation(token, kind, buffer.data(), size, &size)) {
      return {};
    }
    if (kind == TokenUser) {
      denied.push_back({reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid, 0});
      continue;
    }
    auto* groups = reinterpret_cast<TOKEN_GROUPS*>(buffer.data());
    for (DWORD i = 0; i < groups->GroupCount; ++i) {
      denied.push_back({groups->Groups[i].Sid, 0});
    }
  }
  win::Handle result;
  CreateRestrictedToken(token, DISABLE_MAX_PRIVILEGE, static_cast<DWORD>(denied.size()),
                        denied.data(), 0, nullptr, 0, nullptr, result.put());
  return result;
}

HRESULT lastError() {
  return HRESULT_FROM_WIN32(GetLastError());
}

class ServerSecurity final : public ComObject<IServerSecurity> {
public:
  ServerSecurity() : ComObject(liveCounts.others) {}

  HRESULT STDMETHODCALLTYPE QueryBlanket(DWORD* authentication, DWORD* authorization,
                                         OLECHAR** principal, DWORD* level, DWORD* impersonation,
                                         void** privileges, DWORD* capabilities) noexcept override {
    return blanket::query(authentication, authorization, principal, level, impersonation,
                          privileges, capabilities);
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
    auto level = static_cast<SECURITY_IMPERSONATION_LEVEL>(
        settings::number(L"ImpersonationLevel", SecurityImpersonation));
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

CallScope::CallScope() : security_(new ServerSecurity) {
  CoSwitchCallContext(security_, &previous_);
}

CallScope::~CallScope() {
  win::Handle token;
  if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
    SetThreadToken(nullptr, nullptr);
    counters::countViolation(L"a call that returned while it impersonated its client");
  }
  IUnknown* ours = nullptr;
  CoSwitchCallContext(previous_, &ours);
  security_->Release();
}

} // namespace wmi_host
