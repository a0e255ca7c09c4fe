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

/// The results of an operation: objects, then a status. One thread adds them; any thread reads.
class Results {
public:
  void add(Object object);
  /// Sets the final status. Only the first call has an effect.
  void finish(HRESULT status);
  /// Finishes with WBEM_E_CALL_CANCELLED and closes the connection.
  void cancel();
  bool isFinished() const;
  /// Sets the connection that cancel() closes, or null. False if the operation is finished.
  bool setConnection(std::shared_ptr<Connection> connection);

  /// Waits for object `index`, at most `timeout` milliseconds (WBEM_INFINITE: without limit).
  /// WBEM_S_NO_ERROR with the object; WBEM_S_FALSE after the last one; WBEM_S_TIMEDOUT; a failure.
  HRESULT wait(std::size_t index, LONG timeout, std::shared_ptr<const Object>& object);
  /// Waits for the final status.
  HRESULT waitForStatus();
  /// Frees an object that a forward-only enumerator has passed.
  void release(std::size_t index);

private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<const Object>> objects_;
  HRESULT status_ = wbemResult(WBEM_S_PENDING);
  std::shared_ptr<Connection> connection_;
};

/// A client's enumerator. The operation is cancelled when the last of its clones is released.
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

/// A pointer to `results` whose last copy cancels the operation.
std::shared_ptr<Results> owner(std::shared_ptr<Results> results);

} // namespace wmi_host
