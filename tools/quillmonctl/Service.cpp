#include "quillmonctl/Service.h"

#include "quillmonctl/ProductNames.h"
#include "quillmonctl/System.h"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <utility>

namespace ctl {
namespace {

constexpr DWORD kTimeout = 30'000; // milliseconds for a start or a stop
constexpr DWORD kPollInterval = 50;

win::ServiceHandle openManager() {
  win::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) {
    failWin32("opening the service control manager (OpenSCManager)");
  }
  return manager;
}

/// Repeats a query of the platform with a buffer of the size that it asks for.
template <class Query>
std::vector<BYTE> querySized(const char* step, Query&& query) {
  DWORD size = 0;
  query(nullptr, 0, &size);
  std::vector<BYTE> bytes(size);
  if (size == 0 || !query(bytes.data(), size, &size)) {
    failWin32(step);
  }
  return bytes;
}

void waitForState(const Service& service, DWORD wanted, const char* what) {
  for (DWORD waited = 0; service.status().dwCurrentState != wanted; waited += kPollInterval) {
    if (wanted == SERVICE_RUNNING) {
      service.requireRunning();
    }
    if (waited >= kTimeout) {
      throw Failure(fmt::format("{}: not done after {} s, the service is {}", what, kTimeout / 1000,
                                stateText(service.status().dwCurrentState)),
                    "Look into the system's event log, then try again.");
    }
    Sleep(kPollInterval);
  }
}

} // namespace

Service::Service(DWORD rights) {
  const win::ServiceHandle manager = openManager();
  service_.reset(OpenServiceW(manager.get(), kService, rights));
  if (!service_) {
    failWin32(fmt::format("opening the service {} (OpenService)", kServiceText));
  }
}

bool Service::isInstalled() {
  const win::ServiceHandle manager = openManager();
  const win::ServiceHandle service(OpenServiceW(manager.get(), kService, SERVICE_QUERY_STATUS));
  return service || GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
}

Service::Configuration Service::configuration() const {
  const std::vector<BYTE> bytes = querySized(
      "reading the service's configuration (QueryServiceConfig)",
      [&](BYTE* data, DWORD size, DWORD* needed) {
        return QueryServiceConfigW(service_.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(data),
                                   size, needed);
      });
  const auto* const config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(bytes.data());
  Configuration result;
  result.path = utf8(config->lpBinaryPathName != nullptr ? config->lpBinaryPathName : L"");
  result.account = utf8(config->lpServiceStartName != nullptr ? config->lpServiceStartName : L"");
  result.startType = config->dwStartType;
  for (const wchar_t* name = config->lpDependencies; name != nullptr && *name != L'\0';
       name += std::wstring_view(name).size() + 1) {
    result.dependencies.push_back(utf8(name));
  }
  return result;
}

SERVICE_STATUS_PROCESS Service::status() const {
  SERVICE_STATUS_PROCESS status = {};
  DWORD needed = 0;
  if (!QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO,
                            reinterpret_cast<BYTE*>(&status), sizeof status, &needed)) {
    failWin32("asking for the service's state (QueryServiceStatusEx)");
  }
  return status;
}

bool Service::isDelayed() const {
  SERVICE_DELAYED_AUTO_START_INFO info = {};
  DWORD needed = 0;
  return QueryServiceConfig2W(service_.get(), SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
                              reinterpret_cast<BYTE*>(&info), sizeof info, &needed) &&
         info.fDelayedAutostart;
}

bool Service::isRestarted() const {
  DWORD size = 0;
  QueryServiceConfig2W(service_.get(), SERVICE_CONFIG_FAILURE_ACTIONS, nullptr, 0, &size);
  std::vector<BYTE> bytes(size);
  if (size < sizeof(SERVICE_FAILURE_ACTIONSW) ||
      !QueryServiceConfig2W(service_.get(), SERVICE_CONFIG_FAILURE_ACTIONS, bytes.data(), size,
                            &size)) {
    return false;
  }
  const auto* const actions = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(bytes.data());
  for (DWORD i = 0; i < actions->cActions; ++i) {
    if (actions->lpsaActions[i].Type == SC_ACTION_RESTART) {
      return true;
    }
  }
  return false;
}

void Service::setPath(const std::string& path) {
  if (!ChangeServiceConfigW(service_.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                            wide(path).c_str(), nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr)) {
    failWin32("setting the service's binary path (ChangeServiceConfig)");
  }
}

void Service::start() {
  if (!StartServiceW(service_.get(), 0, nullptr) &&
      GetLastError() != ERROR_SERVICE_ALREADY_RUNNING) {
    failWin32("starting the service (StartService)");
  }
  waitForState(*this, SERVICE_RUNNING, "starting the service");
}

void Service::stop() {
  const win::Handle process(OpenProcess(SYNCHRONIZE, FALSE, status().dwProcessId));
  SERVICE_STATUS status = {};
  // The service's process may end before it has answered: its state tells.
  ControlService(service_.get(), SERVICE_CONTROL_STOP, &status);
  waitForState(*this, SERVICE_STOPPED, "stopping the service");
  if (process && WaitForSingleObject(process.get(), kTimeout) != WAIT_OBJECT_0) {
    throw Failure("stopping the service: it says that it has stopped, but its process stays",
                  "End quillmon.exe in the task manager, then try again.");
  }
}

void Service::requireRunning() const {
  const SERVICE_STATUS_PROCESS now = status();
  if (now.dwCurrentState != SERVICE_STOPPED) {
    return;
  }
  // The service ends with the HRESULT of what failed.
  SystemError error = static_cast<HRESULT>(now.dwWin32ExitCode) < 0
                          ? hresultError(static_cast<HRESULT>(now.dwWin32ExitCode))
                          : win32Error(now.dwWin32ExitCode);
  throw Failure("starting the service: it ended at once", std::move(error),
                "Start it in the console to see why: quillmon.exe -c, with quillmonctl trace on "
                "in another window.");
}

void Service::remove() {
  if (!DeleteService(service_.get())) {
    failWin32("removing the service (DeleteService)");
  }
}

std::string stateText(DWORD state) {
  static constexpr std::array kStates = {"unknown", "stopped",    "starting", "stopping",
                                         "running", "continuing", "pausing",  "paused"};
  return state < kStates.size() ? kStates[state] : fmt::format("in the unknown state {}", state);
}

} // namespace ctl
