#pragma once

#include "win/Handles.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace bench {

/// The device server: answers requests on a thread of its own, with documents prepared in advance.
class DeviceServer {
public:
  /// Listens on 127.0.0.1. Its thread runs until the process ends.
  explicit DeviceServer(std::uint16_t requestPort);
  /// Sets the number of devices in the answer to an enumeration.
  void setCount(std::size_t count);

private:
  void serve();
  void answer(SOCKET connection);

  win::Socket listener_;
  std::mutex mutex_;
  std::shared_ptr<const std::string> answer_; // with its frame
};

/// Sends events to the service.
class EventChannel {
public:
  EventChannel(std::uint16_t port, bool isStream);
  /// False if sending failed.
  bool send(const std::string& type, std::size_t device);

private:
  const bool isStream_;
  win::Socket socket_;
};

} // namespace bench
