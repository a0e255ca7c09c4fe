#include "service/CommandLine.h"

#include "service/Console.h"
#include "service/Process.h"
#include "service/ServiceControl.h"
#include "service/VersionIdent.h"
#include "strategy/StrategyFactory.h"
#include "trace/UPOSLog.h"
#include "win/Handles.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>

using trace::UPOSLog;

namespace service {

namespace {

void printNotStarted() {
  console::print("You should start your application using the Services panel");
  console::print("Quillmon Services not started");
}

void selectProxyStrategy() {
  com::orvex::setStrategy(1);
  UPOSLog::trace("Selecting ProxyImp strategy");
}

int startAsService() {
  if (IsServiceRunning()) {
    console::print("Quillmon Services is already running, stop the other instance and try again");
  } else if (!runServiceDispatcher()) {
    printNotStarted();
  }
  return 0;
}

} // namespace

std::string modulePath(const std::string& argv0) {
  std::string path = argv0;
  if (path.find('\\') == std::string::npos) {
    char directory[MAX_PATH] = "";
    GetCurrentDirectoryA(MAX_PATH, directory);
    path = std::string(directory) + "/" + argv0;
  }
  std::replace(path.begin(), path.end(), '\\', '/');
  return path;
}

int RunInteractive() {
  if (IsServiceRunning()) {
    console::print("Can't run interactive because there is another running instance");
    return 0;
  }
  UPOSLog::trace("Starting Interactively");
  const std::int32_t status = Process();
  if (status == 0) {
    blockForever();
  }
  UPOSLog::trace("Failed to start process with error : %i", status);
  console::print("Service could not be started, process returned with error " +
                 std::to_string(status));
  return 1;
}

int runCommandLine(int argc, char* argv[]) {
  if (argc >= 3) {
    printNotStarted();
    std::exit(0); // NOLINT(concurrency-mt-unsafe): there is one thread
  }
  if (argc != 2) {
    return startAsService();
  }
  const std::string path = modulePath(argv[0]);
  const SC_HANDLE manager = openServiceManager();
  // The first character is ignored, whatever it is; the second selects.
  const char letter = argv[1][0] != '\0' ? argv[1][1] : '\0';
  switch (letter) {
  case 'O':
    UPOSLog::setConsoleEcho();
    selectProxyStrategy();
    return RunInteractive();
  case 'c':
    UPOSLog::setConsoleEcho();
    return RunInteractive();
  case 'd':
    return RunInteractive();
  case 'i':
    installService(manager, path);
    return 0;
  case 'o':
    selectProxyStrategy();
    return startAsService();
  case 'u':
    uninstallService(manager);
    return 0;
  case 'v':
    printVersion();
    std::exit(0); // NOLINT(concurrency-mt-unsafe): there is one thread
  default:
    return startAsService();
  }
}

} // namespace service
