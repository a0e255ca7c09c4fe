#pragma once

#include "quillmonctl/Json.h"

#include <windows.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <functional>
#include <optional>
#include <string>

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

  /// The object of that path, "__PATH" first.
  Json object(const std::string& path);
  /// None where WMI does not know it.
  std::optional<Json> find(const std::string& path);

  /// Subscribes, and lets go of the subscription at once.
  void trySubscription(const std::string& query);

  /// Subscribes, calls `ready`, hands over the events until `take` returns false or `seconds` (0:
  /// no limit) are over.
  End events(const std::string& query, unsigned seconds, const std::function<void()>& ready,
             const Take& take);

private:
  Microsoft::WRL::ComPtr<IEnumWbemClassObject> subscribe(const std::string& query);

  Microsoft::WRL::ComPtr<IWbemServices> services_;
};

} // namespace ctl
