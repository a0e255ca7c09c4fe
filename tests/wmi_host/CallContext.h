#pragma once

#include <objidl.h>

namespace wmi_host {

/// Makes the calling thread serve a call of a client for as long as it lives, so that
/// CoImpersonateClient works there; the settings say which token the client has.
class CallScope {
public:
  CallScope(); // throws std::bad_alloc
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;
  /// Ends an impersonation that was left on the thread, and counts it as a violation.
  ~CallScope();

private:
  IServerSecurity* security_; // COM takes no reference of its own
  IUnknown* previous_ = nullptr;
};

} // namespace wmi_host
