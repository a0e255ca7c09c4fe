#include "adapter/RequestBackOff.h"

#include "trace/UPOSLog.h"
#include "win/TimerQueue.h"

#include <mutex>

using trace::UPOSLog;

namespace adapter {

constinit RequestBackOff requestBackOff;

namespace {
std::mutex configuring;
}

void configureTimers() {
  if (requestBackOff.timerQueue != nullptr) {
    return;
  }
  // Two concurrent first requests must not create two queues.
  std::scoped_lock lock(configuring);
  if (requestBackOff.timerQueue != nullptr) {
    return;
  }
  UPOSLog::trace("<<configureTimers>>: Loading timeout for the retry when java drivers are out...");
  const std::uint32_t timeout = configuration::readInt("upos.requestSocket.retryTimeout",
                                                       configuration::kDefaultRetryTimeout);
  requestBackOff.retryTimeout = timeout;
  UPOSLog::trace("<<configureTimers>>: Timeout is %d milliseconds.", timeout);
  UPOSLog::trace("<<configureTimers>>: Creating Timer queue...");
  void* queue = nullptr;
  const win::Error error = win::createTimerQueue(queue);
  if (error == 0) {
    UPOSLog::trace("<<configureTimers>>: CreateTimerQueue() succeeded!!");
  } else {
    UPOSLog::trace("<<configureTimers>>: CreateTimerQueue() failed (%d)", error);
  }
  requestBackOff.timerQueue = queue;
}

void signalServerIsOfflineFor5Seconds() {
  requestBackOff.serverOffline = 1;
  const std::uint32_t timeout = requestBackOff.retryTimeout;
  UPOSLog::trace("<<signalServerIsOfflineFor5Seconds>>: Java server is down, will avoid attempts "
                 "for %d milliseconds...",
                 timeout);
  void* timer = nullptr;
  const win::Error error =
      win::startTimer(timer, requestBackOff.timerQueue, TimeoutExpired, timeout);
  if (error == 0) {
    requestBackOff.timer = timer;
  } else {
    // Kept: the line end inside the message leaves an empty line in the trace.
    UPOSLog::trace("<<signalServerIsOfflineFor5Seconds>>: CreateTimerQueueTimer failed (%d)\n",
                   error);
    requestBackOff.serverOffline = 0;
  }
}

void TimeoutExpired(void*, unsigned char) noexcept {
  UPOSLog::trace("<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again.");
  requestBackOff.serverOffline = 0;
}

} // namespace adapter
