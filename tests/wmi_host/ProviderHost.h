#pragma once

#include "Connection.h"
#include "Registrar.h"

#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace wmi_host {

/// Counters of a provider's process for tests, stored in the registry below Counters.
namespace counters {
inline std::atomic<DWORD> initializations = 0;
inline std::atomic<DWORD> requests = 0;
/// Counts a breach of WMI's rules by the provider.
void addViolation(const std::wstring& what);
/// Stores the counters and the numbers of live objects.
void store();
} // namespace counters

struct Request; // of a client

/// The provider's side of one process: the registered provider, the subscribers, the listener for
/// clients. Any thread.
class ProviderHost {
public:
  static ProviderHost& instance();

  /// WBEM_E_PROVIDER_ALREADY_REGISTERED while another is registered.
  HRESULT registerProvider(const std::shared_ptr<const Registration>& registration,
                           IUnknown* provider);
  void unregisterProvider();
  void registerEvents();
  void unregisterEvents();
  void publishEvent(const Object& event);

private:
  struct Provider {
    std::shared_ptr<const Registration> registration;
    Microsoft::WRL::ComPtr<IUnknown> unknown;
    std::mutex initializing;
    Microsoft::WRL::ComPtr<IWbemServices> services; // after Initialize
  };

  ProviderHost() = default;
  void startListening();
  void stopListeningIfUnused();
  void accept(SOCKET listener, const std::wstring& identity);
  void serve(const std::shared_ptr<Connection>& connection);
  void subscribe(const std::shared_ptr<Connection>& connection);
  void answer(const std::shared_ptr<Request>& request);
  static HRESULT initialize(Provider& provider);
  static HRESULT call(Provider& provider, const std::shared_ptr<Request>& request);

  std::mutex mutex_; // guards what follows
  std::shared_ptr<Provider> provider_;
  int eventRegistrations_ = 0;
  SOCKET listener_ = INVALID_SOCKET;
  std::wstring identity_; // of the listener, as it is published
  std::set<std::shared_ptr<Connection>> connections_;
  std::set<std::shared_ptr<Connection>> subscribers_;
};

} // namespace wmi_host
