#pragma once

#include "Cim.h"
#include "Connection.h"
#include "LiveCounts.h"

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
  /// A forward-only reader does not need this object any more.
  void release(std::size_t index);

private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<const Object>> objects_;
  HRESULT status_ = wbemResult(WBEM_S_PENDING);
  std::shared_ptr<Connection> connection_;
};

/// The client's view of Results. An enumerator and its clones share the Results' owner, which
/// cancels the operation when the last of them goes.
class Enumerator final : public ComObject<IEnumWbemClassObject> {
public:
  Enumerator(std::shared_ptr<Results> owner, bool isForwardOnly, std::size_t next = 0)
      : results_(std::move(owner)), isForwardOnly_(isForwardOnly), next_(next) {}

  HRESULT STDMETHODCALLTYPE Reset() noexcept override;
  HRESULT STDMETHODCALLTYPE Next(LONG timeout, ULONG count, IWbemClassObject** objects,
                                 ULONG* returned) noexcept override;
  HRESULT STDMETHODCALLTYPE NextAsync(ULONG count, IWbemObjectSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** copy) noexcept override;
  HRESULT STDMETHODCALLTYPE Skip(LONG timeout, ULONG count) noexcept override;

private:
  ~Enumerator() override = default;

  const LiveCount live_{liveCounts.services};
  const std::shared_ptr<Results> results_;
  const bool isForwardOnly_;
  std::mutex mutex_;
  std::size_t next_;
};

/// The owner of `results`: a pointer to them whose last copy cancels the operation.
std::shared_ptr<Results> owner(std::shared_ptr<Results> results);

} // namespace wmi_host
