#pragma once

#include "win/Handles.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace bench {

/// The device server of what is measured: answers requests on a thread of its own and sends events,
/// all from documents that are made beforehand.
class DeviceServer {
public:
  /// Listens on that port of 127.0.0.1; lives as long as the process.
  explicit DeviceServer(std::uint16_t requestPort);
  /// From now on an enumeration is answered with that many devices.
  void setCount(std::size_t count);

private:
  void serve();
  void answer(SOCKET connection);

  win::Socket listener_;
  std::mutex mutex_;
  std::shared_ptr<const std::string> answer_; // with its marks
};

/// Where events are sent to.
class EventChannel {
public:
  EventChannel(std::uint16_t port, bool isStream);
  /// False when the connection does not take it.
  bool send(const std::string& type, std::size_t device);

private:
  const bool isStream_;
  win::Socket socket_;
};

} // namespace bench
