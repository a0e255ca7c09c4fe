#pragma once

#include "win/Configuration.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Plays the service towards a device server under development: asks it for all that the service
/// asks for, takes its events, and judges framing, documents and times by the service's own code.
namespace till {

struct ServerCheckOptions {
  bool isProxy = false;
  std::string host = "127.0.0.1"; ///< adapter strategy: where the device server listens
  std::uint16_t requestPort = configuration::kDefaultRequestPort;
  /// On this machine, for datagrams or for the connection.
  std::uint16_t eventPort = configuration::kDefaultEventPort;
  std::chrono::milliseconds timeout{10'000}; ///< for each answer, and for each wait
  std::size_t devices = 0;                   ///< proxy strategy: as many are expected; 0: unknown
  std::optional<std::size_t> events;         ///< must come; none: one is waited for
};

struct CheckedItem {
  enum class Result { Good, Warning, Bad, Skipped };

  std::string name;
  Result result = Result::Good;
  std::optional<std::chrono::milliseconds> time;
  std::vector<std::string> findings;

  void warn(std::string finding);
  void fail(std::string finding);
};

/// `say` gets a line before each wait that the user can do something about. Each wait ends with the
/// time-out at the latest, and after two time-outs the rest is skipped. Throws std::system_error
/// with a text for the user where a port of this machine cannot be had, or a host not be found.
std::vector<CheckedItem> checkServer(const ServerCheckOptions& options,
                                     const std::function<void(std::string_view)>& say);

} // namespace till
