#pragma once

#include "win/Handles.h"

#include <string>
#include <vector>

namespace ctl {

/// The installed service as the service control manager knows it. One thread. What fails throws
/// Failure.
class Service {
public:
  /// Opens it with these rights; a service that is not installed is a Failure with error 1060.
  explicit Service(DWORD rights);

  static bool isInstalled();

  struct Configuration {
    std::string path;
    std::string account;
    DWORD startType = 0;
    std::vector<std::string> dependencies;
  };
  Configuration configuration() const;
  SERVICE_STATUS_PROCESS status() const;
  bool isDelayed() const;
  /// True if at least one recovery action restarts it.
  bool isRestarted() const;

  void setPath(const std::string& path);

  /// Each returns when it is so; asks nothing of a service that is there already. Stopping waits
  /// for the process's end, too: only then are its ports free.
  void start();
  void stop();

  /// Throws Failure with the code that the service ended with, if it has ended.
  void requireRunning() const;

  /// Marks it for removal; it is gone with the last handle.
  void remove();

  SC_HANDLE get() const { return service_.get(); }

private:
  win::ServiceHandle service_;
};

/// "running", "stopped", ...
std::string stateText(DWORD state);

} // namespace ctl
