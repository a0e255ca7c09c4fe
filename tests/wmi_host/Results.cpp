#include "Results.h"

#include "ClassObject.h"

#include <chrono>

namespace wmi_host {

void Results::add(Object object) {
  std::scoped_lock lock(mutex_);
  if (status_ == wbemResult(WBEM_S_PENDING)) {
    objects_.push_back(std::make_shared<const Object>(std::move(object)));
    changed_.notify_all();
  }
}

void Results::finish(HRESULT status) {
  std::scoped_lock lock(mutex_);
  connection_.reset();
  if (status_ == wbemResult(WBEM_S_PENDING)) {
    status_ = status;
    changed_.notify_all();
  }
}

void Results::cancel() {
  std::scoped_lock lock(mutex_);
  if (status_ == wbemResult(WBEM_S_PENDING)) {
    status_ = wbemResult(WBEM_E_CALL_CANCELLED);
    changed_.notify_all();
  }
  if (connection_) {
    connection_->close();
  }
}

bool Results::isFinished() const {
  std::scoped_lock lock(mutex_);
  return status_ != wbemResult(WBEM_S_PENDING);
}

bool Results::setConnection(std::shared_ptr<Connection> connection) {
  std::scoped_lock lock(mutex_);
  connection_ = std::move(connection);
  return status_ == wbemResult(WBEM_S_PENDING);
}

HRESULT Results::wait(std::size_t index, LONG timeout, std::shared_ptr<const Object>& object) {
  std::unique_lock lock(mutex_);
  auto ready = [&] { return index < objects_.size() || status_ != wbemResult(WBEM_S_PENDING); };
  if (timeout == kForever) {
    changed_.wait(lock, ready);
  } else if (!changed_.wait_for(lock, std::chrono::milliseconds(timeout), ready)) {
    return wbemResult(WBEM_S_TIMEDOUT);
  }
  if (index < objects_.size()) {
    object = objects_[index];
    return wbemResult(WBEM_S_NO_ERROR);
  }
  return FAILED(status_) ? status_ : wbemResult(WBEM_S_FALSE);
}

HRESULT Results::waitForStatus() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return status_ != wbemResult(WBEM_S_PENDING); });
  return status_;
}

void Results::release(std::size_t index) {
  std::scoped_lock lock(mutex_);
  objects_[index].reset();
}

HRESULT Enumerator::Reset() noexcept {
  if (isForwardOnly_) {
    return wbemResult(WBEM_E_INVALID_OPERATION);
  }
  std::scoped_lock lock(mutex_);
  next_ = 0;
  return wbemResult(WBEM_S_NO_ERROR);
}

HRESULT Enumerator::Next(LONG timeout, ULONG count, IWbemClassObject** objects,
                         ULONG* returned) noexcept {
  return comBoundary([&] {
    if (objects == nullptr || returned == nullptr || timeout < kForever) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    *returned = 0;
    std::scoped_lock lock(mutex_);
    HRESULT result = wbemResult(WBEM_S_NO_ERROR);
    while (*returned < count && result == wbemResult(WBEM_S_NO_ERROR)) {
      std::shared_ptr<const Object> object;
      result = results_->wait(next_, timeout, object);
      if (result == wbemResult(WBEM_S_NO_ERROR)) {
        objects[(*returned)++] = new ClassObject(*object);
        if (isForwardOnly_) {
          results_->release(next_);
        }
        ++next_;
      }
    }
    return result;
  });
}

HRESULT Enumerator::NextAsync(ULONG, IWbemObjectSink*) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}

HRESULT Enumerator::Clone(IEnumWbemClassObject** copy) noexcept {
  return comBoundary([&] {
    if (copy == nullptr) {
      return wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    if (isForwardOnly_) {
      return wbemResult(WBEM_E_INVALID_OPERATION);
    }
    std::scoped_lock lock(mutex_);
    *copy = new Enumerator(results_, isForwardOnly_, next_);
    return wbemResult(WBEM_S_NO_ERROR);
  });
}

HRESULT Enumerator::Skip(LONG, ULONG) noexcept {
  return wbemResult(WBEM_E_NOT_SUPPORTED);
}

std::shared_ptr<Results> owner(std::shared_ptr<Results> results) {
  Results* const address = results.get();
  return {address, [held = std::move(results)](Results* ended) { ended->cancel(); }};
}

} // namespace wmi_host
