#pragma once

#include "ComObject.h"
#include "RefusingObjects.h"
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

namespace bench::floor {

/// How much of a request is done: each stage includes the one before it. The differences between
/// the stages are the parts of an enumeration's time. The last stage looks for
/// the trace's switch once for each line that the design gives an enumeration or a retrieval.
enum class Stage { wmi, exchange, library, documents, objects, lines };

/// One property as it is handed to WMI.
struct PreparedField {
  std::wstring name;
  win::Variant value;
};
using PreparedDevice = std::list<PreparedField>;

inline const wchar_t* wide(const char16_t* text) {
  return reinterpret_cast<const wchar_t*>(text); // both are UTF-16 here
}

/// A field's text as a property's value; the type word's first letter tells its type.
void setValue(win::Variant& value, const wchar_t* type, const wchar_t* text);

/// Spawns an instance of `type`, has it filled by `fill`, and hands it to the sink.
HRESULT indicate(IWbemClassObject& type, IWbemObjectSink& sink, const auto& fill) {
  Microsoft::WRL::ComPtr<IWbemClassObject> instance;
  HRESULT result = type.SpawnInstance(0, &instance);
  if (SUCCEEDED(result)) {
    fill(*instance.Get());
    IWbemClassObject* object = instance.Get();
    result = sink.Indicate(1, &object);
  }
  return result;
}

/// The cached devices of the proxy strategy, prepared for WMI. Any thread.
class PreparedDevices {
public:
  /// Adds the device, or replaces fields of the existing one.
  void store(const std::wstring& id, PreparedDevice device);
  void forEach(const std::function<void(PreparedDevice&)>& use);

private:
  std::mutex mutex_;
  std::map<std::wstring, std::size_t> index_;
  std::vector<PreparedDevice> devices_;
};

/// Enumeration and retrieval with only sockets, the XML library and WMI.
class Provider final : public test_support::RefusingServices<
                           test_support::ComObject<IWbemServices, IWbemProviderInit>> {
public:
  Provider(bool isProxy, std::uint16_t requestPort, PreparedDevices& devices)
      : isProxy_(isProxy), requestPort_(requestPort), devices_(devices) {}

  void setStage(Stage stage) { stage_ = stage; }

  HRESULT STDMETHODCALLTYPE Initialize(LPWSTR, LONG, LPWSTR, LPWSTR, IWbemServices* services,
                                       IWbemContext*,
                                       IWbemProviderInitSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR className, LONG, IWbemContext*,
                                                    IWbemObjectSink* sink) noexcept override;
  HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR path, LONG, IWbemContext*,
                                           IWbemObjectSink* sink) noexcept override;

private:
  ~Provider() override = default;

  HRESULT answer(const char16_t* command, const std::wstring& className, const std::wstring& id,
                 IWbemObjectSink& sink);
  HRESULT answerFromServer(const char16_t* command, const std::wstring& className,
                           const std::wstring& id, IWbemObjectSink& sink);
  HRESULT answerFromDevices(const std::wstring& className, const std::wstring& id,
                            IWbemObjectSink& sink);

  /// By WMI's parser, as the design asks for; the key is not used.
  void readKeys(const std::wstring& path) const;
  void traceLines(std::size_t count) const;

  const bool isProxy_;
  const std::uint16_t requestPort_;
  PreparedDevices& devices_;
  std::atomic<Stage> stage_ = Stage::lines;
  Microsoft::WRL::ComPtr<IWbemServices> services_;
  Microsoft::WRL::ComPtr<IClassFactory> pathParserFactory_;
};

} // namespace bench::floor
