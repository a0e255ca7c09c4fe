#pragma once

#include <wbemcli.h>

/// IWbemServices with every operation refused, for a provider that overrides those it serves.
class RefusingServices : public IWbemServices {
public:
#define REFUSE(declaration)                                                                        \
  HRESULT STDMETHODCALLTYPE declaration noexcept override {                                        \
    return static_cast<HRESULT>(WBEM_E_PROVIDER_NOT_CAPABLE);                                      \
  }
  REFUSE(CancelAsyncCall(IWbemObjectSink*))
  REFUSE(OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**))
  REFUSE(QueryObjectSink(LONG, IWbemObjectSink**))
  REFUSE(GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**))
  REFUSE(PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**))
  REFUSE(PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**))
  REFUSE(DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**))
  REFUSE(PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**))
  REFUSE(DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                    IWbemClassObject**, IWbemCallResult**))
  REFUSE(ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                         IWbemObjectSink*))
#undef REFUSE

protected:
  ~RefusingServices() = default;
};
