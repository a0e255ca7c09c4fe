#include "service/EventThread.h"

#include "strategy/CommunicationLayer.h"
#include "strategy/IUPOSXmlAdapter.h"
#include "strategy/StrategyFactory.h"
#include "trace/UPOSLog.h"
#include "win/Automation.h"
#include "win/Boundary.h"
#include "win/Configuration.h"

#include <wrl/client.h>

#include <algorithm>
#include <new>
#include <string>
#include <system_error>

using com::orvex::CommunicationLayer;
using com::orvex::IUPOSXmlAdapter;
using com::orvex::StrategyFactory;
using Microsoft::WRL::ComPtr;

namespace {

// However the retry time is configured, a port that is taken is not asked for in a busy loop.
constexpr unsigned kShortestRetry = 100;
constexpr unsigned kLongestRetry = 24 * 60 * 60 * 1000;

/// Runs `step` until the platform has the memory and the other resources that it needs. Whatever
/// else it throws passes, and ends the thread.
template <class Step>
decltype(auto) untilThereIsRoom(Step step) {
  for (;;) {
    try {
      return step();
    } catch (const std::bad_alloc&) {
    } catch (const std::system_error&) {
    }
    Sleep(kShortestRetry);
  }
}

void openEventPort(CommunicationLayer& layer) {
  const auto port = static_cast<std::uint16_t>(
      configuration::readInt(layer.getPortKey().c_str(), static_cast<int>(layer.getDefaultPort())));
  while (layer.open(port) != 0) {
    const unsigned retry =
        std::clamp(configuration::readInt("upos.requestSocket.retryTimeout", 10000), kShortestRetry,
                   kLongestRetry);
    UPOSLog::trace("[EventThread] Unable to open event port %d, next attempt in %d milliseconds",
                   port, retry);
    Sleep(retry);
  }
}

// Byte by byte, not by code page: what a device server sends as text reaches WMI as Latin-1.
win::Bstr widenEachCharacter(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  std::transform(text.begin(), text.end(), wide.begin(),
                 [](char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); });
  return win::Bstr(wide);
}

HRESULT putText(IWbemClassObject& instance, const wchar_t* property, const std::string& text) {
  win::Variant value(widenEachCharacter(text));
  return instance.Put(property, 0, value.get(), 0);
}

/// The status that decides about all later events: SpawnInstance's, or that of the last Put.
HRESULT publish(IWbemClassObject& eventClass, IWbemObjectSink& sink, const DeviceEvent& event) {
  ComPtr<IWbemClassObject> instance;
  HRESULT status = eventClass.SpawnInstance(0, &instance);
  if (FAILED(status)) {
    return status;
  }
  putText(*instance.Get(), L"classname", event.className);
  putText(*instance.Get(), L"deviceid", event.deviceId);
  putText(*instance.Get(), L"eventtype", event.type);
  status = putText(*instance.Get(), L"codename", event.modifyInstanceCode);
  if (SUCCEEDED(status)) {
    IWbemClassObject* object = instance.Get();
    sink.Indicate(1, &object); // a delivery that fails loses this event only
  }
  return status;
}

StrategyFactory& strategyFactory() {
  if (StrategyFactory* const factory = com::orvex::getStrategyFactory()) {
    return *factory;
  }
  throw std::bad_alloc();
}

[[noreturn]] void forwardEvents(const EventThreadContext& context) {
  // Never freed: the loop has no exit, and an exception ends the thread without any clean-up.
  StrategyFactory& factory = untilThereIsRoom([]() -> auto& { return strategyFactory(); });
  IUPOSXmlAdapter* const adapter = untilThereIsRoom([&] { return factory.createXmlAdapter(); });
  CommunicationLayer* const layer =
      untilThereIsRoom([&] { return factory.createCommunicationLayer(); });
  untilThereIsRoom([&] { openEventPort(*layer); });
  const win::Bstr className = untilThereIsRoom([] { return win::Bstr(L"QuillmonEvent"); });
  IWbemClassObject* eventClass = nullptr;
  HRESULT status = context.services->GetObject(className.get(), 0, nullptr, &eventClass, nullptr);
  for (;;) {
    // An event that there is no memory for is lost alone: the step is then the next event's.
    untilThereIsRoom([&] {
      const DeviceEvent event = layer->receiveEvent(adapter);
      // Sticky on purpose: after one failed step towards WMI no event is sent any more.
      if (SUCCEEDED(status) && event.type != "NA") {
        status = publish(*eventClass, *context.sink, event);
      }
    });
  }
}

} // namespace

DWORD WINAPI EventThread(void* context) noexcept {
  const HRESULT result = win::comBoundary([context]() -> HRESULT {
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
      CoUninitialize();
      return win::wbemResult(WBEM_E_INVALID_PARAMETER);
    }
    forwardEvents(*static_cast<const EventThreadContext*>(context));
  });
  UPOSLog::trace("[EventThread] exit t_Result = %i", result);
  return static_cast<DWORD>(result);
}
