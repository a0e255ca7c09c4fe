#include "service/ServiceControl.h"

#include "service/Console.h"
#include "service/Process.h"
#include "trace/UPOSLog.h"
#include "win/Handles.h"

#include <atomic>
#include <mutex>

using trace::UPOSLog;

namespace service {

namespace {

char serviceName[] = "QuillmonServ";
constexpr const char* kDisplayName = "ORVEX Quillmon Services";

/// The service's status. ServiceMain and the control handler write it without a lock; that they
/// interleave between fields is accepted.
struct StatusBlock {
  std::atomic<DWORD> type = 0;
  std::atomic<DWORD> state = 0;
  std::atomic<DWORD> controlsAccepted = 0;
  std::atomic<DWORD> exitCode = 0;
};
constinit StatusBlock status;
constinit std::atomic<SERVICE_STATUS_HANDLE> statusHandle = nullptr;
/// Held while a stop is reported. Windows calls the handler on the dispatcher's thread, Wine on a
/// thread of its own. There the process could otherwise end between the two reports, and the
/// service control manager would take the second one for a report of the next instance.
std::mutex reportingStop;

/// Reports the current status to the service control manager.
void report() {
  SERVICE_STATUS reported = {};
  reported.dwServiceType = status.type;
  reported.dwCurrentState = status.state;
  reported.dwControlsAccepted = status.controlsAccepted;
  reported.dwWin32ExitCode = status.exitCode;
  SetServiceStatus(statusHandle, &reported);
}

void report(DWORD state, DWORD exitCode) {
  status.state = state;
  status.exitCode = exitCode;
  report();
}

} // namespace

SC_HANDLE openServiceManager() {
  win::ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  return win::leakOnPurpose(std::move(manager)); // open until the process ends
}

void installService(SC_HANDLE manager, const std::string& binaryPath) {
  const SC_HANDLE service =
      CreateServiceA(manager, serviceName, kDisplayName, GENERIC_READ | GENERIC_EXECUTE,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_IGNORE,
                     binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  // Printed whatever the result: installation scripts expect both lines.
  console::print("Quillmon Services has been registered");
  console::print("Starting Service");
  if (StartServiceA(service, 0, nullptr)) {
    console::print("Quillmon Services has been started.");
  } else {
    console::print("Could not start service : " + std::to_string(GetLastError()));
  }
}

void uninstallService(SC_HANDLE manager) {
  win::ServiceHandle service(OpenServiceA(manager, serviceName, DELETE | SERVICE_STOP));
  if (!service) {
    return;
  }
  SERVICE_STATUS stopping = {}; // required, unused
  ControlService(service.get(), SERVICE_CONTROL_STOP, &stopping);
  DeleteService(service.get());
  service.reset();
  console::print("Quillmon Services has been uninstalled");
}

bool IsServiceRunning() {
  const SC_HANDLE manager = openServiceManager();
  win::ServiceHandle service(OpenServiceA(manager, serviceName, SERVICE_QUERY_STATUS));
  SERVICE_STATUS current = {};
  QueryServiceStatus(service.get(), &current);
  win::leakOnPurpose(std::move(service)); // open until the process ends
  return current.dwCurrentState == SERVICE_RUNNING;
}

bool runServiceDispatcher() {
  const SERVICE_TABLE_ENTRYA table[] = {{serviceName, ServiceMain}, {nullptr, nullptr}};
  const bool wasService = StartServiceCtrlDispatcherA(table) != FALSE;
  const std::scoped_lock reported(reportingStop);
  return wasService;
}

void WINAPI ServiceMain(DWORD, LPSTR*) noexcept {
  status.type = SERVICE_WIN32;
  status.state = SERVICE_START_PENDING;
  status.controlsAccepted = SERVICE_ACCEPT_STOP;
  statusHandle = RegisterServiceCtrlHandlerA(serviceName, ServiceCtrlHandler);
  // By design running before anything is initialised: at boot WMI may take minutes to start, and
  // the service control manager must not time out.
  report(SERVICE_RUNNING, NO_ERROR);
  const HRESULT result = Process();
  if (result == 0) {
    UPOSLog::trace("[ServiceDispatch]Success");
    blockForever();
  }
  UPOSLog::trace("[ServiceDispatch]Failed to start process with error : %i", result);
  report(SERVICE_STOPPED, static_cast<DWORD>(result));
}

void WINAPI ServiceCtrlHandler(DWORD control) noexcept {
  switch (control) {
  case SERVICE_CONTROL_STOP:
  case SERVICE_CONTROL_SHUTDOWN: {
    // Kept: reported twice. No clean-up: the service control manager ends the process.
    const std::scoped_lock reporting(reportingStop);
    report(SERVICE_STOPPED, NO_ERROR);
    report();
    break;
  }
  case SERVICE_CONTROL_INTERROGATE:
    report();
    break;
  default:
    // Kept: an unknown control stores the last error as the state.
    status.state = GetLastError();
    report();
    break;
  }
}

void blockForever() {
  for (;;) {
    Sleep(INFINITE);
  }
}

} // namespace service
