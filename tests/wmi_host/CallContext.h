#pragma once

#include <objidl.h>
#include <wrl/client.h>

namespace wmi_host {

/// Gives the calling thread the call context of a client's call, so that CoImpersonateClient works
/// there. The settings define the client's token.
class CallScope {
public:
  CallScope(); // throws std::bad_alloc
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;
  /// Counts an impersonation that is still in effect as a violation, and ends it.
  ~CallScope();

private:
  Microsoft::WRL::ComPtr<IServerSecurity> security_; // COM does not add a reference
  IUnknown* previous_ = nullptr;
};

} // namespace wmi_host
