#pragma once

#include "quillmonctl/Json.h"

#include <windows.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/// COM for the process, multithreaded; one, for as long as anything below lives.
class ComLibrary {
public:
  ComLibrary();
  ~ComLibrary();
  ComLibrary(const ComLibrary&) = delete;
  ComLibrary& operator=(const ComLibrary&) = delete;
};

/// One namespace of this machine, as any client sees it. One thread. Values come as
/// JSON: texts, numbers, booleans, null, arrays of them. Failed calls throw Failure.
class Wmi {
public:
  /// Connects.
  explicit Wmi(const wchar_t* nameSpace = L"root\\cimv2");

  enum class End { Complete, TimedOut };
  /// Returns false to stop.
  using Take = std::function<bool(const Json& object)>;

  /// Hands over the instances of a class one by one; each may take `seconds`.
  End instances(const std::string& className, unsigned seconds, const Take& take);

  /// All of them; no answer in time is a Failure, too.
  std::vector<Json> list(const std::string& className, unsigned seconds);

  /// The object of that path, "__PATH" first.
  Json object(const std::string& path);
  /// WMI knows that path.
  bool has(const std::string& path);

  using Clock = std::chrono::steady_clock;
  /// The events of a query from the subscription on; WMI keeps those that come between two calls.
  class Events {
  public:
    /// Waits until then, or for as long as it takes. A subscription that has ended is a Failure.
    std::optional<Json> next(std::optional<Clock::time_point> end);

  private:
    friend class Wmi;
    Microsoft::WRL::ComPtr<IEnumWbemClassObject> events_;
  };
  Events subscribe(const std::string& query);

private:
  Microsoft::WRL::ComPtr<IWbemServices> services_;
};

} // namespace ctl
