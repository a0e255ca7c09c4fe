// floor_provider adapter|proxy REQUEST_PORT EVENT_PORT: in the product's place towards WMI and the
// device server, it does what cannot be left out and nothing else. Prints "ready"; then reads lines
// "stage NAME" (wmi, exchange, library, documents, objects, lines) and answers each with "ok". Ends
// with its input.

#include "Events.h"
#include "Provider.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <thread>

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kRegistrar = {
    0x4cfc7932, 0x0f9d, 0x4bef, {0x9c, 0x32, 0x8e, 0xa2, 0xa6, 0xb5, 0x6f, 0xcb}};
constexpr GUID kEventProvider = {
    0xf5f75737, 0x2843, 0x4f22, {0x93, 0x3d, 0xc7, 0x6a, 0x97, 0xcd, 0xa6, 0x2f}};
constexpr const wchar_t* kNamespace = L"root\\cimv2";
constexpr const wchar_t* kRegistration = L"QuillmonService";

const std::map<std::string, Stage> kStages = {
    {"wmi", Stage::wmi},         {"exchange", Stage::exchange},
    {"library", Stage::library}, {"documents", Stage::documents},
    {"objects", Stage::objects}, {"lines", Stage::lines}};

} // namespace

int main(int argc, char* argv[]) {
  if (argc != 4) {
    return 2;
  }
  const bool isProxy = argv[1] == std::string("proxy");
  const auto requestPort = static_cast<std::uint16_t>(std::atoi(argv[2]));
  const auto eventPort = static_cast<std::uint16_t>(std::atoi(argv[3]));
  WSADATA winsock;
  WSAStartup(MAKEWORD(2, 2), &winsock);
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);

  PreparedDevices devices;
  FloorProvider provider(isProxy, requestPort, devices);
  ComPtr<IWbemDecoupledRegistrar> registrar;
  ComPtr<IWbemDecoupledBasicEventProvider> events;
  ComPtr<IWbemServices> services;
  ComPtr<IWbemObjectSink> sink;
  if (FAILED(
          CoCreateInstance(kRegistrar, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&registrar))) ||
      FAILED(registrar->Register(0, nullptr, nullptr, nullptr, kNamespace, kRegistration,
                                 static_cast<IWbemServices*>(&provider))) ||
      FAILED(
          CoCreateInstance(kEventProvider, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&events))) ||
      FAILED(events->Register(0, nullptr, nullptr, nullptr, kNamespace, kRegistration, nullptr)) ||
      FAILED(events->GetService(0, nullptr, &services)) ||
      FAILED(events->GetSink(0, nullptr, &sink))) {
    std::cout << "not registered" << std::endl;
    return 1;
  }
  std::thread([&] {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (isProxy) {
      forwardStream(eventPort, *services.Get(), *sink.Get(), devices);
    }
    forwardDatagrams(eventPort, *services.Get(), *sink.Get());
  }).detach();

  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    const auto stage = kStages.find(line.substr(line.find(' ') + 1, line.find('\r') - 6));
    if (stage == kStages.end()) {
      std::cout << "unknown" << std::endl;
      continue;
    }
    provider.setStage(stage->second);
    std::cout << "ok" << std::endl;
  }
  TerminateProcess(GetCurrentProcess(), 0); // the event thread does not end
}
