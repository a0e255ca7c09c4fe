// quillmonctl install | uninstall | repair

#include "quillmonctl/BinaryPath.h"
#include "quillmonctl/Commands.h"
#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofCompiler.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/Service.h"
#include "quillmonctl/Steps.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Wmi.h"

#include <fmt/format.h>

#include <array>

namespace ctl {
namespace {

constexpr DWORD kPollInterval = 100;           // milliseconds between looks
constexpr DWORD kTimeout = 30'000;             // milliseconds for the provider, and for a removal
constexpr DWORD kSettleTime = 1000;            // milliseconds from the first answer on
constexpr DWORD kRestartAfter = 60'000;        // milliseconds between a failure and the restart
constexpr unsigned kFilterTimeout = 10;        // seconds for the write filter's answer
constexpr DWORD kForgetFailuresAfter = 86'400; // seconds
constexpr DWORD kSetupRights = SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG | SERVICE_CHANGE_CONFIG |
                               SERVICE_START | SERVICE_STOP | DELETE;

std::string programOf(const SetupOptions& options) {
  std::string program =
      options.program.empty() ? programFolder() + "\\quillmon.exe" : absolutePath(options.program);
  if (!exists(program)) {
    failWin32(fmt::format("looking for the service's program {}", program), ERROR_FILE_NOT_FOUND,
              "Put quillmonctl.exe beside quillmon.exe, or name the program with --program.");
  }
  return program;
}

/// The service's own option registers a path without quotes and starts it at once.
void requireSafePath(const std::string& program) {
  for (const std::string& other : BinaryPath{program, "", false}.hijackCandidates()) {
    if (exists(other)) {
      throw Failure(fmt::format("checking {}: Windows could start {} in its place", program, other),
                    "Find out who put that program there and remove it, or install to a path "
                    "without blanks.");
    }
  }
}

/// Early, before anything is changed.
void requireAdministrator() {
  const win::ServiceHandle manager(
      OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
  if (!manager) {
    failWin32("opening the service control manager to change it (OpenSCManager)");
  }
}

void waitForRemoval() {
  for (DWORD waited = 0; Service::isInstalled(); waited += kPollInterval) {
    if (waited >= kTimeout) {
      failWin32("waiting for the service to be gone", ERROR_SERVICE_MARKED_FOR_DELETE);
    }
    Sleep(kPollInterval);
  }
}

void removeService() {
  std::string program;
  {
    Service service(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG | SERVICE_STOP | DELETE);
    program = BinaryPath::parse(service.configuration().path).program;
    service.stop();
    if (!exists(program)) {
      service.remove(); // its own option went with it
    }
  }
  if (exists(program)) {
    runProgram(program, {"-u"});
  }
  waitForRemoval();
}

/// Until the provider is asked, whatever it answers then: without a device server it answers with
/// a failure.
std::string waitForFirstAnswer(const Service& service) {
  for (DWORD waited = 0;; waited += kPollInterval) {
    service.requireRunning();
    try {
      std::size_t devices = 0;
      const Wmi::End end = Wmi().instances("UPOS_LogicalDevice", 5, [&](const Json&) {
        ++devices;
        return true;
      });
      return end == Wmi::End::TimedOut ? "registered with WMI; the device server does not answer"
                                       : fmt::format("registered with WMI, {} devices", devices);
    } catch (const Failure& failure) {
      if (!failure.error || failure.error->number != 0x80041013) {
        return "registered with WMI; it has no device server to ask yet";
      }
      if (waited >= kTimeout) {
        throw Failure("waiting for the service to register with WMI", *failure.error,
                      "Look into the service's trace: quillmonctl trace on, then restart it.");
      }
    }
    Sleep(kPollInterval);
  }
}

/// The service registers for lists first and for events second, and ends when the second fails: it
/// may have answered by then.
std::string waitForProvider(const Service& service) {
  std::string answer = waitForFirstAnswer(service);
  Sleep(kSettleTime);
  service.requireRunning();
  return answer;
}

/// A setting of the service that not every Windows takes. It is read back: what was taken and
/// dropped is said, too.
void setOptional(Steps& steps, const std::string& what, const std::string& byHand, BOOL taken,
                 const std::function<bool()>& isSet) {
  if (!taken) {
    steps.warn(what, win32Error(), byHand);
  } else if (!isSet()) {
    steps.warn(what, {SystemError::Kind::Win32, 0, "the system took the setting and has lost it"},
               byHand);
  } else {
    steps.done(what);
  }
}

void setRecovery(Service& service, Steps& steps) {
  std::array<SC_ACTION, 3> actions{};
  actions.fill({SC_ACTION_RESTART, kRestartAfter});
  SERVICE_FAILURE_ACTIONSW failure = {};
  failure.dwResetPeriod = kForgetFailuresAfter;
  failure.cActions = static_cast<DWORD>(actions.size());
  failure.lpsaActions = actions.data();
  BOOL taken = ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure);
  setOptional(steps, "restarted a minute after a failure",
              "sc failure QuillmonServ reset= 86400 "
              "actions= restart/60000/restart/60000/restart/60000",
              taken, [&] { return service.isRestarted(); });
  // A start that fails ends with an error code and without a crash: that is a failure, too.
  SERVICE_FAILURE_ACTIONS_FLAG flag = {TRUE};
  taken = ChangeServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &flag);
  setOptional(
      steps, "restarted after it ended with an error", "sc failureflag QuillmonServ 1", taken, [&] {
        SERVICE_FAILURE_ACTIONS_FLAG found = {};
        DWORD needed = 0;
        return QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
                                    reinterpret_cast<BYTE*>(&found), sizeof found, &needed) &&
               found.fFailureActionsOnNonCrashFailures;
      });
}

/// What is registered, quoted and with the strategy's option. Returns true if it was changed.
bool correctPath(Service& service, bool isProxy, Steps& steps) {
  const BinaryPath found = BinaryPath::parse(service.configuration().path);
  const BinaryPath wanted = {found.program, isProxy ? "-o" : "", true};
  const bool isChanged =
      found.isProxy() != isProxy || (!found.isQuoted && !found.hijackCandidates().empty());
  if (isChanged) {
    service.setPath(wanted.text());
    const std::string now = service.configuration().path;
    if (now != wanted.text()) {
      throw Failure(fmt::format("reading the service's binary path back: it is {}", now),
                    "Run quillmonctl uninstall, then install again.");
    }
  }
  steps.done(fmt::format("binary path {}", isChanged ? wanted.text() : found.text()));
  return isChanged;
}

/// What was done may be gone after a restart.
void warnOfWriteFilter(Steps& steps) {
  const Survey::WriteFilter filter = surveyWriteFilter(kFilterTimeout);
  if (filter.protects) {
    steps.warn(fmt::format("kept on the volume {}", filter.volume),
               {SystemError::Kind::Win32, 0,
                "the Unified Write Filter forgets it all at the next restart"},
               "Do it again in servicing mode, or while the filter is off (docs/install.md).");
  }
}

void installSteps(const SetupOptions& options, Steps& steps) {
  const std::string program = programOf(options);
  const MofFiles mof = MofFiles::in(options.mofFolder);
  mof.requireClasses();
  requireAdministrator();
  if (Service::isInstalled()) {
    failWin32(fmt::format("installing the service {}", kServiceText), ERROR_SERVICE_EXISTS,
              "Run quillmonctl uninstall first; or quillmonctl repair, if only its WMI classes are "
              "to be renewed.");
  }
  requireSafePath(program);

  // The classes come first: the service looks for its event class when it starts.
  requireNoForeignClass();
  if (registrationState().present == 0) {
    steps.onFailure("the WMI classes are removed again", [mof] { removeClasses(mof); });
  }
  compileMof(mof.install, true);
  steps.done(
      fmt::format("{} WMI classes and registrations, read back", registrationState().present));

  if (options.eventLog) {
    steps.onFailure("the subscription for the event log is removed again",
                    [mof] { compileEventLog(mof, false); });
    compileEventLog(mof, true);
    steps.done("device events go to the Application log, read back");
  }

  steps.onFailure("the service is removed again", [] {
    if (Service::isInstalled()) {
      removeService();
    }
  });
  const ProgramResult registered = runProgram(program, {"-i"});
  if (!Service::isInstalled()) {
    throw Failure(fmt::format("registering the service (quillmon.exe -i): it is not there, though "
                              "the program said: {}",
                              printable(registered.output)),
                  "Look for another program that removes services, then try again.");
  }
  steps.done("registered with the service control manager");

  Service service(kSetupRights);
  const BinaryPath found = BinaryPath::parse(service.configuration().path);
  if (!equalsIgnoreCase(found.program, program)) {
    throw Failure(fmt::format("checking the service's binary path: it is {} instead of {}",
                              found.program, program),
                  "Run quillmonctl uninstall, then install again.");
  }
  // It starts with Windows, not delayed and after no other service, as its own option registers it:
  // the till's application sends its first events soon, and COM starts WMI when it is needed.
  const bool mustRestart = correctPath(service, options.strategy == "proxy", steps);
  setRecovery(service, steps);
  if (mustRestart) {
    service.stop();
  }
  service.start();
  steps.done(fmt::format("running in the {} strategy",
                         options.strategy.empty() ? "adapter" : options.strategy));
  steps.done(waitForProvider(service));
  warnOfWriteFilter(steps);
}

void uninstallSteps(const SetupOptions& options, Steps& steps) {
  const MofFiles mof = MofFiles::in(options.mofFolder);
  requireAdministrator();
  if (Service::isInstalled()) {
    removeService();
    steps.done("the service is stopped and removed");
  } else {
    steps.done("no service was installed");
  }
  if (registrationState().present > 0) {
    removeClasses(mof);
    steps.done("the WMI classes are removed");
  } else {
    steps.done("no WMI class was there");
  }
  if (hasEventLog()) {
    compileEventLog(mof, false);
    steps.done("device events go to the Application log no longer");
  }
}

void repairSteps(const SetupOptions& options, Steps& steps) {
  const MofFiles mof = MofFiles::in(options.mofFolder);
  requireAdministrator();
  compileMof(mof.install, true);
  steps.done(
      fmt::format("{} WMI classes and registrations, read back", registrationState().present));
  if (options.eventLog) {
    compileEventLog(mof, true);
    steps.done("device events go to the Application log, read back");
  }
  if (!Service::isInstalled()) {
    steps.done("no service is installed: only the classes were renewed");
    return;
  }
  Service service(kSetupRights);
  if (!options.strategy.empty()) {
    correctPath(service, options.strategy == "proxy", steps);
  }
  // The service looks at its classes when it starts, and only then.
  if (options.keepsStopped && service.status().dwCurrentState == SERVICE_STOPPED) {
    steps.done("the service is stopped and stays so");
    return;
  }
  service.stop();
  service.start();
  steps.done("the service was restarted");
  steps.done(waitForProvider(service));
  warnOfWriteFilter(steps);
}

using Job = void (*)(const SetupOptions& options, Steps& steps);

ExitCode run(bool json, const SetupOptions& options, Job job) {
  const ComLibrary com;
  Steps steps(json);
  steps.run([&] { job(options, steps); });
  if (json) {
    console::print(dump(steps.toJson()));
  }
  return ExitCode::Done;
}

} // namespace

ExitCode install(bool json, const SetupOptions& options) {
  return run(json, options, installSteps);
}

ExitCode uninstall(bool json, const SetupOptions& options) {
  return run(json, options, uninstallSteps);
}

ExitCode repair(bool json, const SetupOptions& options) {
  return run(json, options, repairSteps);
}

} // namespace ctl
