#pragma once

#include "Cim.h"
#include "ComObject.h"
#include "Connection.h"

#include <wbemcli.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace wmi_host {

/// WBEM_INFINITE, which MinGW declares unsigned.
constexpr LONG kForever = -1;

/// What one operation delivers: objects, then a status. Filled by one thread and read by any
/// number.
class Results {
public:
  void add(Object object);
  /// Ends the operation; only the first status counts.
  void finish(HRESULT status);
  /// Ends it with WBEM_E_CALL_CANCELLED and closes the connection that it waits on.
  void cancel();
  bool isFinished() const;
  /// The connection that the filling thread waits on, or null. False if the operation is over.
  bool setConnection(std::shared_ptr<Connection> connection);

  /// Waits at most `timeout` milliseconds (WBEM_INFINITE: for ever) for object `index`.
  /// WBEM_S_NO_ERROR with the object; WBEM_S_FALSE at the end; WBEM_S_TIMEDOUT; the failure.
  HRESULT wait(std::size_t index, LONG timeout, std::shared_ptr<const Object>& object);
  /// Waits for the end.
  HRESULT waitForStatus();
  /// A reader that never goes back has no use for this object any more.
  void forget(std::size_t index);

private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<const Object>> objects_;
  HRESULT status_ = wbemResult(WBEM_S_PENDING);
  std::shared_ptr<Connection> connection_;
};

/// What an enumerator and its clones share: the operation is cancelled with the last of them.
class Reading {
public:
  explicit Reading(std::shared_ptr<Results> from) noexcept : results(std::move(from)) {}
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;
  ~Reading() { results->cancel(); }
  const std::shared_ptr<Results> results;
};

/// The client's view of Results.
class Enumerator final : public ComObject<IEnumWbemClassObject, IClientSecurity> {
public:
  Enumerator(std::shared_ptr<Reading> reading, bool isForwardOnly, std::size_t next = 0)
      : ComObject(liveCounts.services), reading_(std::move(reading)), isForwardOnly_(isForwardOnly),
        next_(next) {}

  HRESULT STDMETHODCALLTYPE Reset() noexcept override;
  HRESULT STDMETHODCALLTYPE Next(LONG timeout, ULONG count, IWbemClassObject** objects,
                                 ULONG* returned) noexcept override;
  HRESULT STDMETHODCALLTYPE NextAsync(ULONG count, IWbemObjectSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** copy) noexcept override;
  HRESULT STDMETHODCALLTYPE Skip(LONG timeout, ULONG count) noexcept override;

  HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown* proxy, DWORD* authentication,
                                         DWORD* authorization, OLECHAR** principal, DWORD* level,
                                         DWORD* impersonation, void** identity,
                                         DWORD* capabilities) noexcept override;
  HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown* proxy, DWORD authentication, DWORD authorization,
                                       OLECHAR* principal, DWORD level, DWORD impersonation,
                                       void* identity, DWORD capabilities) noexcept override;
  HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown* proxy, IUnknown** copy) noexcept override;

private:
  ~Enumerator() override = default;

  const std::shared_ptr<Reading> reading_;
  const bool isForwardOnly_;
  std::mutex mutex_;
  std::size_t next_;
};

/// IClientSecurity as a proxy of WMI answers it: a blanket can be set and read, nothing depends on
/// it here.
namespace blanket {
HRESULT query(DWORD* authentication, DWORD* authorization, OLECHAR** principal, DWORD* level,
              DWORD* impersonation, void** identity, DWORD* capabilities) noexcept;
HRESULT copy(IUnknown* proxy, IUnknown** result) noexcept;
} // namespace blanket

} // namespace wmi_host
