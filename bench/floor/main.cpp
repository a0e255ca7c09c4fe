// floor_provider adapter|proxy REQUEST_PORT EVENT_PORT: takes the product's place between WMI and
// the device server, and does only what the design makes unavoidable. Reads lines "stage NAME"
// (wmi, exchange, library, documents, objects, lines) and answers each with "ok".

#include "Commands.h"
#include "Events.h"
#include "Provider.h"
#include "ProviderRegistration.h"
#include "win/Handles.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdlib>
#include <map>
#include <string>
#include <thread>

namespace bench::floor {
namespace {

const std::map<std::string, Stage> kStages = {
    {"wmi", Stage::wmi},         {"exchange", Stage::exchange},
    {"library", Stage::library}, {"documents", Stage::documents},
    {"objects", Stage::objects}, {"lines", Stage::lines}};

int run(bool isProxy, std::uint16_t requestPort, std::uint16_t eventPort) {
  PreparedDevices devices;
  const auto provider = test_support::adopt(new Provider(isProxy, requestPort, devices));
  test_support::ProviderRegistration registration;
  if (FAILED(registration.start(L"QuillmonService", static_cast<IWbemServices*>(provider.Get())))) {
    std::cout << "not registered" << std::endl;
    return 1;
  }
  std::thread([&] {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (isProxy) {
      forwardStream(eventPort, *registration.services.Get(), *registration.sink.Get(), devices);
    }
    forwardDatagrams(eventPort, *registration.services.Get(), *registration.sink.Get());
  }).detach();
  answerCommands([&](const std::string&, std::istringstream& words) {
    provider->setStage(kStages.at(word(words)));
    return "ok";
  });
  TerminateProcess(GetCurrentProcess(), 0); // the event thread does not end
  return 0;
}

/// The console mode asks the service control manager whether the service runs.
void lookForService() {
  const win::ServiceHandle atStart(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  const win::ServiceHandle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  const win::ServiceHandle service(
      OpenServiceA(manager.get(), "QuillmonServ", SERVICE_QUERY_STATUS));
  SERVICE_STATUS status = {};
  QueryServiceStatus(service.get(), &status);
}

} // namespace
} // namespace bench::floor

int main(int argc, char* argv[]) {
  if (argc != 4) {
    return 2;
  }
  bench::floor::lookForService();
  WSADATA winsock;
  WSAStartup(MAKEWORD(2, 2), &winsock);
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                       RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_DYNAMIC_CLOAKING, nullptr);
  return bench::floor::run(argv[1] == std::string("proxy"),
                           static_cast<std::uint16_t>(std::atoi(argv[2])),
                           static_cast<std::uint16_t>(std::atoi(argv[3])));
}
