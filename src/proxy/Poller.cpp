#include "proxy/Poller.h"

#include "trace/UPOSLog.h"
#include "win/Configuration.h"

#include <chrono>

using trace::UPOSLog;

namespace com::orvex {

namespace {

constinit std::atomic<Poller*> replacement = nullptr;

std::int64_t calendarTime() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

/// In 32 bits: a very large number of minutes wraps.
std::int32_t toSeconds(std::int32_t minutes) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(minutes) * 60U);
}

} // namespace

Poller& Poller::instance() {
  if (Poller* const replaced = replacement) {
    return *replaced;
  }
  static auto* const poller = new Poller;
  return *poller;
}

void Poller::replaceInstance(Poller& poller) noexcept {
  replacement = &poller;
}

Poller::Poller()
    : Poller(static_cast<std::int32_t>(configuration::readInt("provider.dataUpdate.frequency", 60)),
             0) {
  lastPoll_ = calendarTime(); // after the trace line
}

Poller::Poller(std::int32_t minutes, std::int64_t now)
    : period_(toSeconds(minutes)), lastPoll_(now) {
  UPOSLog::trace("Polling time set to %d", minutes);
}

std::int64_t Poller::currentTime() {
  return calendarTime();
}

bool Poller::isPollingTime() {
  // Kept: truncated to 32 bits, so that from 2038 on no period ends.
  const std::int64_t now = static_cast<std::int32_t>(currentTime());
  if (now - lastPoll_ < period_) {
    return false;
  }
  lastPoll_ = now;
  return true;
}

} // namespace com::orvex
