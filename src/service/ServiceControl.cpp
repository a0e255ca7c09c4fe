#include "service/ServiceControl.h"

#include "service/Console.h"
#include "service/Process.h"
#include "trace/UPOSLog.h"
#include "win/Handles.h"

#include <atomic>
#include <mutex>

namespace {

char serviceName[] = "QuillmonServ";
constexpr const char* kDisplayName = "ORVEX Quillmon Services";

/// The status block, written by ServiceMain and by the control handler without a lock: each field
/// is whole, but that one of the two overtakes the other is accepted.
struct StatusBlock {
  std::atomic<DWORD> type = 0;
  std::atomic<DWORD> state = 0;
  std::atomic<DWORD> controlsAccepted = 0;
  std::atomic<DWORD> exitCode = 0;
};
constinit StatusBlock status;
constinit std::atomic<SERVICE_STATUS_HANDLE> statusHandle = nullptr;
/// Held while a stop is reported. Windows calls the handler on the dispatcher's thread; where it
/// has a thread of its own, the process would end between the two reports, and the control manager
/// would take the late one for a report of the next instance.
std::mutex reportingStop;

/// Tells the block as it stands.
void report() {
  SERVICE_STATUS told = {};
  told.dwServiceType = status.type;
  told.dwCurrentState = status.state;
  told.dwControlsAccepted = status.controlsAccepted;
  told.dwWin32ExitCode = status.exitCode;
  SetServiceStatus(statusHandle, &told);
}

void report(DWORD state, DWORD exitCode) {
  status.state = state;
  status.exitCode = exitCode;
  report();
}

} // namespace

SC_HANDLE openServiceManager() {
  win::ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  return win::leakOnPurpose(std::move(manager)); // lives as long as this short process
}

void installService(SC_HANDLE manager, const std::string& binaryPath) {
  const SC_HANDLE service =
      CreateServiceA(manager, serviceName, kDisplayName, GENERIC_READ | GENERIC_EXECUTE,
                     SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_IGNORE,
                     binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  // Said whatever the result: installation scripts wait for these two lines.
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
  SERVICE_STATUS stopping = {}; // of no use to anybody
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
  win::leakOnPurpose(std::move(service)); // lives as long as this process, like the manager's
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
  // Running before anything is initialised: WMI may take minutes to come up at boot, and the
  // service control manager must not give the service up meanwhile.
  report(SERVICE_RUNNING, NO_ERROR);
  const HRESULT result = Process();
  if (result == 0) {
    UPOSLog::trace("[ServiceDispatch]Success");
    parkForever();
  }
  UPOSLog::trace("[ServiceDispatch]Failed to start process with error : %i", result);
  report(SERVICE_STOPPED, static_cast<DWORD>(result));
}

void WINAPI ServiceCtrlHandler(DWORD control) noexcept {
  switch (control) {
  case SERVICE_CONTROL_STOP:
  case SERVICE_CONTROL_SHUTDOWN: {
    // Nothing is torn down: the service control manager ends the process. Reported twice, as ever.
    const std::scoped_lock reporting(reportingStop);
    report(SERVICE_STOPPED, NO_ERROR);
    report();
    break;
  }
  case SERVICE_CONTROL_INTERROGATE:
    report();
    break;
  default:
    // Kept on purpose: an unknown control puts the last error where the state belongs.
    status.state = GetLastError();
    report();
    break;
  }
}

void parkForever() {
  for (;;) {
    Sleep(INFINITE);
  }
}
