#pragma once

#include "RefusingServices.h"
#include "win/Automation.h"

#include <wbemcli.h>
#include <wbemprov.h>
#include <wrl/client.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

/// How much of a request is done: each stage does what the one before it does, and more. What the
/// stages differ by is what an enumeration's time is made of. The last one looks for the trace's
/// switch as often as an enumeration or a retrieval has lines by design.
enum class Stage { wmi, exchange, library, documents, objects, lines };

/// One property as it is handed to WMI.
struct PreparedField {
  std::wstring name;
  win::Variant value;
};
using PreparedDevice = std::list<PreparedField>;

/// A field's text as a property's value, told by the type word's first letter.
void setValue(win::Variant& value, const wchar_t* type, const wchar_t* text);

/// The proxy strategy's devices, ready to be handed over. Any thread.
class PreparedDevices {
public:
  /// Adds the device, or takes over the fields of one that is there.
  void store(const std::wstring& id, PreparedDevice device);
  void forEach(const std::function<void(PreparedDevice&)>& use);

private:
  std::mutex mutex_;
  std::map<std::wstring, std::size_t> index_;
  std::vector<PreparedDevice> devices_;
};

/// An enumeration and a retrieval with nothing but sockets, XML library and WMI. Everything else is
/// refused. Lives as long as the process.
class FloorProvider final : public RefusingServices, public IWbemProviderInit {
public:
  FloorProvider(bool isProxy, std::uint16_t requestPort, PreparedDevices& devices)
      : isProxy_(isProxy), requestPort_(requestPort), devices_(devices) {}

  void setStage(Stage stage) { stage_ = stage; }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** result) noexcept override;
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return 2; }
  ULONG STDMETHODCALLTYPE Release() noexcept override { return 1; }
  HRESULT STDMETHODCALLTYPE Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* services,
                                       IWbemContext*,
                                       IWbemProviderInitSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR className, LONG, IWbemContext*,
                                                    IWbemObjectSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR path, LONG, IWbemContext*,
                                           IWbemObjectSink* sink) noexcept override;

private:
  HRESULT answer(const char16_t* command, const std::wstring& className, const std::wstring& id,
                 IWbemObjectSink& sink);
  HRESULT answerFromServer(const char16_t* command, const std::wstring& className,
                           const std::wstring& id, IWbemObjectSink& sink);
  HRESULT answerFromDevices(const std::wstring& className, const std::wstring& id,
                            IWbemObjectSink& sink);

  void traceLines(std::size_t count) const;

  const bool isProxy_;
  const std::uint16_t requestPort_;
  PreparedDevices& devices_;
  std::atomic<Stage> stage_ = Stage::lines;
  Microsoft::WRL::ComPtr<IWbemServices> services_;
};
