#pragma once

#include <wbemcli.h>

/// The large interfaces of WMI with every method refused. `Base` derives from the interface and
/// implements IUnknown; a derived class overrides the methods that it serves.
namespace test_support {

#define REFUSE(declaration)                                                                        \
  HRESULT STDMETHODCALLTYPE declaration override {                                                 \
    return refuse();                                                                               \
  }

template <class Base>
class RefusingServices : public Base {
public:
  REFUSE(OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**))
  REFUSE(CancelAsyncCall(IWbemObjectSink*))
  REFUSE(QueryObjectSink(LONG, IWbemObjectSink**))
  REFUSE(GetObject(const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**))
  REFUSE(GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
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
  REFUSE(CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**))
  REFUSE(ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*))
  REFUSE(ExecMethod(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                    IWbemClassObject**, IWbemCallResult**))
  REFUSE(ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                         IWbemObjectSink*))

protected:
  virtual HRESULT refuse() { return static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED); }
};

template <class Base>
class RefusingClassObject : public Base {
public:
  REFUSE(GetQualifierSet(IWbemQualifierSet**))
  REFUSE(Get(LPCWSTR, LONG, VARIANT*, CIMTYPE*, LONG*))
  REFUSE(Put(LPCWSTR, LONG, VARIANT*, CIMTYPE))
  REFUSE(Delete(LPCWSTR))
  REFUSE(GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**))
  REFUSE(BeginEnumeration(LONG))
  REFUSE(Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*))
  REFUSE(EndEnumeration())
  REFUSE(GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**))
  REFUSE(Clone(IWbemClassObject**))
  REFUSE(GetObjectText(LONG, BSTR*))
  REFUSE(SpawnDerivedClass(LONG, IWbemClassObject**))
  REFUSE(SpawnInstance(LONG, IWbemClassObject**))
  REFUSE(CompareTo(LONG, IWbemClassObject*))
  REFUSE(GetPropertyOrigin(LPCWSTR, BSTR*))
  REFUSE(InheritsFrom(LPCWSTR))
  REFUSE(GetMethod(LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**))
  REFUSE(PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*))
  REFUSE(DeleteMethod(LPCWSTR))
  REFUSE(BeginMethodEnumeration(LONG))
  REFUSE(NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**))
  REFUSE(EndMethodEnumeration())
  REFUSE(GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**))
  REFUSE(GetMethodOrigin(LPCWSTR, BSTR*))

protected:
  virtual HRESULT refuse() { return static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED); }
};

#undef REFUSE

} // namespace test_support
