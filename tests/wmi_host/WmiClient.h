#pragma once

#include <windows.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <stdexcept>
#include <string>

namespace test_support {

/// A failed call; what() is its name and the HRESULT.
class WmiFailure : public std::runtime_error {
public:
  WmiFailure(const char* call, HRESULT code);
  const HRESULT result;
};

/// Throws WmiFailure for a failure.
void check(const char* call, HRESULT result);

/// A client of root\cimv2 that uses COM only. Every method may throw WmiFailure. Any thread of the
/// multithreaded apartment.
class WmiClient {
public:
  using Objects = Microsoft::WRL::ComPtr<IEnumWbemClassObject>;
  using Object = Microsoft::WRL::ComPtr<IWbemClassObject>;
  static constexpr LONG kForever = -1; // WBEM_INFINITE, which MinGW declares unsigned
  static constexpr LONG kStream = WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY;

  WmiClient();

  Object get(const std::wstring& path) const;
  Objects instances(const std::wstring& className) const;
  Objects query(const std::wstring& wql) const;
  /// The events from now on.
  Objects events(const std::wstring& wql) const;

  /// Null after the last object, or after `timeout` milliseconds.
  static Object next(const Objects& objects, LONG timeout = kForever);

private:
  Microsoft::WRL::ComPtr<IWbemServices> services_;
};

} // namespace test_support
