// What Wine's sc has no command for:
//   service_config NAME BINPATH        as Windows' "sc config NAME binPath= BINPATH"
//   service_config NAME control CODE   as Windows' "sc control NAME CODE"; then prints the state
//   that
//                                      the service is in, as a number

#include "win/Handles.h"

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace {

int failed() {
  std::cerr << "service_config: error " << GetLastError() << std::endl;
  return 1;
}

int setBinaryPath(SC_HANDLE manager, const char* name, const char* path) {
  const win::ServiceHandle service(OpenServiceA(manager, name, SERVICE_CHANGE_CONFIG));
  return ChangeServiceConfigA(service.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                              SERVICE_NO_CHANGE, path, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr)
             ? 0
             : failed();
}

int control(SC_HANDLE manager, const char* name, DWORD code) {
  const win::ServiceHandle service(
      OpenServiceA(manager, name, SERVICE_USER_DEFINED_CONTROL | SERVICE_QUERY_STATUS));
  SERVICE_STATUS status = {};
  if (!ControlService(service.get(), code, &status) ||
      !QueryServiceStatus(service.get(), &status)) {
    return failed();
  }
  std::cout << status.dwCurrentState << std::endl;
  return 0;
}

} // namespace

int main(int argc, char* argv[]) {
  const win::ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (argc == 3) {
    return setBinaryPath(manager.get(), argv[1], argv[2]);
  }
  if (argc == 4 && std::string_view(argv[2]) == "control") {
    return control(manager.get(), argv[1], static_cast<DWORD>(std::strtoul(argv[3], nullptr, 10)));
  }
  std::cerr << "usage: service_config NAME BINPATH | NAME control CODE" << std::endl;
  return 2;
}
