#include "PatchedImport.h"
#include "RecordedTrace.h"
#include "StartSignal.h"
#include "service/Process.h"
#include "service/ServiceControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using service::runServiceDispatcher;
using service::ServiceCtrlHandler;
using service::ServiceMain;
using test_support::PatchedImport;
using test_support::StartSignal;

namespace {

using testing::ElementsAre;

struct Reported {
  DWORD type;
  DWORD state;
  DWORD controlsAccepted;
  DWORD exitCode;
  bool operator==(const Reported&) const = default;
};

std::vector<Reported> reports;
std::vector<Reported> reportsBeforeProcess;

BOOL WINAPI recordStatus(SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) {
  EXPECT_EQ(status->dwServiceSpecificExitCode, 0U);
  EXPECT_EQ(status->dwCheckPoint, 0U);
  EXPECT_EQ(status->dwWaitHint, 0U);
  reports.push_back({status->dwServiceType, status->dwCurrentState, status->dwControlsAccepted,
                     status->dwWin32ExitCode});
  return TRUE;
}

/// A control manager that calls the handler on a thread of its own, and returns after the first
/// report of a stop.
namespace eager_manager {
StartSignal stopReported;
std::thread handler;

BOOL WINAPI recordSlowly(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
  if (!reports.empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // an overtaking return would show
  }
  recordStatus(handle, status);
  if (reports.size() == 1) {
    stopReported.give();
  }
  return TRUE;
}

BOOL WINAPI dispatch(const SERVICE_TABLE_ENTRYA*) {
  handler = std::thread([] { ServiceCtrlHandler(SERVICE_CONTROL_STOP); });
  stopReported.wait();
  return TRUE;
}
} // namespace eager_manager

constexpr HRESULT kProcessFailed = E_ACCESSDENIED;

class ServiceControl : public testing::Test {
protected:
  ServiceControl() : patch_("SetServiceStatus", recordStatus) {
    reports.clear();
    recorded_trace::clear();
  }

  static Reported reported(DWORD state, DWORD exitCode = 0) {
    return {SERVICE_WIN32, state, SERVICE_ACCEPT_STOP, exitCode};
  }

  /// Starts the service with a body that fails, which sets the status block.
  static void startAndFail() { ServiceMain(0, nullptr); }

  static std::vector<Reported> reportsOf(int control) {
    reports.clear();
    ServiceCtrlHandler(static_cast<DWORD>(control));
    return reports;
  }

private:
  PatchedImport<decltype(SetServiceStatus)> patch_;
};

TEST_F(ServiceControl, IsReportedRunningBeforeAnythingIsInitialised) {
  startAndFail();
  EXPECT_THAT(reportsBeforeProcess, ElementsAre(reported(SERVICE_RUNNING)));
}

TEST_F(ServiceControl, AFailedStartIsReportedStoppedWithItsCode) {
  startAndFail();
  EXPECT_THAT(reports, ElementsAre(reported(SERVICE_RUNNING),
                                   reported(SERVICE_STOPPED, static_cast<DWORD>(kProcessFailed))));
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("[ServiceDispatch]Failed to start process with error : " +
                          std::to_string(kProcessFailed)));
}

TEST_F(ServiceControl, TheProcessEndsOnlyWhenBothStopsAreReported) {
  const PatchedImport<decltype(SetServiceStatus)> slow("SetServiceStatus",
                                                       eager_manager::recordSlowly);
  const PatchedImport<decltype(StartServiceCtrlDispatcherA)> eager("StartServiceCtrlDispatcherA",
                                                                   eager_manager::dispatch);
  EXPECT_TRUE(runServiceDispatcher());
  EXPECT_EQ(reports.size(), 2U);
  eager_manager::handler.join();
}

// Kept: the same report twice.
TEST_F(ServiceControl, AStopAndAShutdownAreReportedStoppedTwice) {
  startAndFail();
  for (const int control : {SERVICE_CONTROL_STOP, SERVICE_CONTROL_SHUTDOWN}) {
    EXPECT_THAT(reportsOf(control),
                ElementsAre(reported(SERVICE_STOPPED), reported(SERVICE_STOPPED)));
  }
}

TEST_F(ServiceControl, AnInterrogationReportsTheCurrentStatus) {
  startAndFail();
  EXPECT_THAT(reportsOf(SERVICE_CONTROL_INTERROGATE),
              ElementsAre(reported(SERVICE_STOPPED, static_cast<DWORD>(kProcessFailed))));
}

// Kept: the state becomes the last error of the handler's thread.
TEST_F(ServiceControl, AnUnknownControlPutsTheLastErrorIntoTheState) {
  startAndFail();
  ServiceCtrlHandler(SERVICE_CONTROL_STOP);
  for (const int control : {SERVICE_CONTROL_PAUSE, 200}) {
    SetLastError(1234);
    EXPECT_THAT(reportsOf(control), ElementsAre(reported(1234)));
  }
  EXPECT_THAT(reportsOf(SERVICE_CONTROL_INTERROGATE), ElementsAre(reported(1234)));
}

} // namespace

/// Replaces the service's body.
HRESULT service::Process() noexcept {
  reportsBeforeProcess = reports;
  return kProcessFailed;
}
