#include "service/EventThread.h"

#include "model/CommunicationLayer.h"
#include "model/IUPOSXmlAdapter.h"
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
using model::DeviceEvent;
using trace::UPOSLog;

namespace service {

namespace {

// Milliseconds between two attempts: of a step that lacks resources, and to open the event port.
constexpr DWORD kResourceRetryDelay = 100;
constexpr DWORD kMinPortRetryDelay = 1000;
constexpr DWORD kMaxPortRetryDelay = 60 * 1000;

/// Repeats `step` until it no longer fails for lack of memory or other system resources. Other
/// exceptions pass.
template <class Step>
decltype(auto) retryOnShortage(Step step) {
  for (;;) {
    try {
      return step();
    } catch (const std::bad_alloc&) {
    } catch (const std::system_error&) {
    }
    Sleep(kResourceRetryDelay);
  }
}

std::uint16_t eventPort(CommunicationLayer& layer) {
  const std::string key = layer.getPortKey();
  return static_cast<std::uint16_t>(
      configuration::readInt(key.c_str(), static_cast<int>(layer.getDefaultPort())));
}

/// Retries until the port is open.
void retryOpen(CommunicationLayer& layer, std::uint16_t port) {
  DWORD delay = kMinPortRetryDelay;
  do {
    UPOSLog::trace("[EventThread] Unable to open event port %d, next attempt in %d milliseconds",
                   port, delay);
    Sleep(delay);
    delay = std::min(2 * delay, kMaxPortRetryDelay);
  } while (layer.open(port) != 0);
}

HRESULT putText(IWbemClassObject& instance, const wchar_t* property, const std::string& text) {
  // The same conversion as for instances, so that both give a device the same id.
  win::Variant value(win::bstrInThreadCodePage(text));
  return instance.Put(property, 0, value.get(), 0);
}

/// Sends one event to WMI. Returns the status of SpawnInstance, or of the last Put.
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
    sink.Indicate(1, &object); // unchecked: a failed delivery loses this event only
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
  // Never freed: the loop has no exit, and an exception ends the thread without clean-up.
  StrategyFactory& factory = retryOnShortage([]() -> auto& { return strategyFactory(); });
  IUPOSXmlAdapter* const adapter = retryOnShortage([&] { return factory.createXmlAdapter(); });
  CommunicationLayer* const layer =
      retryOnShortage([&] { return factory.createCommunicationLayer(); });
  const std::uint16_t port = retryOnShortage([&] { return eventPort(*layer); });
  bool isOpen = retryOnShortage([&] { return layer->open(port) == 0; });
  const win::Bstr className = retryOnShortage([] { return win::Bstr(L"QuillmonEvent"); });
  IWbemClassObject* eventClass = nullptr;
  HRESULT status = context.services->GetObject(className.get(), 0, nullptr, &eventClass, nullptr);
  for (;;) {
    // If memory runs out, only this event is lost: the repeated step waits for the next one.
    retryOnShortage([&] {
      if (!isOpen) {
        retryOpen(*layer, port);
        isOpen = true;
      }
      const DeviceEvent event = layer->receiveEvent(adapter);
      // By design sticky: after a failed WMI call no event is sent any more.
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
  return static_cast<DWORD>(result);
}

} // namespace service
