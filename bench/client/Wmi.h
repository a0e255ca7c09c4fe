#pragma once

#include <wbemcli.h>
#include <wrl/client.h>

#include <cstddef>
#include <string>

/// A WMI client that only counts what it is given. Throws std::runtime_error with the HRESULT of a
/// call that failed.
class Wmi {
public:
  /// To root\cimv2.
  Wmi();
  /// The number of instances. Any thread.
  std::size_t enumerate(const std::wstring& className);
  void get(const std::wstring& path);
  /// From now on events can be waited for.
  void watch();
  /// False when none has come after ten seconds.
  bool nextEvent();

private:
  Microsoft::WRL::ComPtr<IWbemServices> services_;
  Microsoft::WRL::ComPtr<IEnumWbemClassObject> events_;
};
