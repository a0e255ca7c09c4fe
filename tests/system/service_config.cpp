// service_config NAME BINPATH: what Windows' "sc config NAME binPath= BINPATH" does; Wine's sc has
// no such command.

#include "win/Handles.h"

#include <iostream>

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "usage: service_config NAME BINPATH" << std::endl;
    return 2;
  }
  const win::ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  const win::ServiceHandle service(OpenServiceA(manager.get(), argv[1], SERVICE_CHANGE_CONFIG));
  if (!ChangeServiceConfigA(service.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                            argv[2], nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)) {
    std::cerr << "service_config: error " << GetLastError() << std::endl;
    return 1;
  }
  return 0;
}
