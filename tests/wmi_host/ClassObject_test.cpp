#include "ClassObject.h"
#include "MofReader.h"
#include "win/Automation.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <functional>

namespace wmi_host {
namespace {

using Microsoft::WRL::ComPtr;

class ClassObjectTest : public testing::Test {
protected:
  void SetUp() override {
    readMof(repository_, R"(#pragma namespace("root\\cimv2")
      [abstract, Description("A thing") : ToInstance] class Thing {
        [key, read] string Id; uint32 U32; sint32 S32; uint64 U64; uint8 U8; uint16 U16;
        boolean Flag = TRUE; real64 Ratio; datetime When; char16 Letter; uint8 Bytes[];
        string Names[];
      };
      class Part : Thing { string Maker = "Acme"; };)",
            "test");
    type_ =
        adopt<IWbemClassObject>(new ClassObject(Object::ofClass(repository_.findClass(L"Part"))));
    ASSERT_EQ(type_->SpawnInstance(0, &part_), S_OK);
  }
  void TearDown() override {
    type_.Reset();
    part_.Reset();
    EXPECT_EQ(liveCounts.objects.load(), 0);
  }

  HRESULT put(const wchar_t* name, const std::function<void(VARIANT&)>& fill) {
    win::Variant value;
    fill(*value.get());
    return part_->Put(name, 0, value.get(), 0);
  }
  HRESULT putNumber(const wchar_t* name, LONG number) {
    return put(name, [&](VARIANT& value) {
      value.vt = VT_I4;
      value.lVal = number;
    });
  }
  HRESULT putText(const wchar_t* name, const wchar_t* text) {
    return put(name, [&](VARIANT& value) {
      value.vt = VT_BSTR;
      value.bstrVal = SysAllocString(text);
    });
  }
  /// What Get gives, as text, after the VARIANT's type.
  std::wstring get(IWbemClassObject& object, const wchar_t* name) {
    win::Variant value;
    HRESULT result = object.Get(name, 0, value.get(), nullptr, nullptr);
    if (FAILED(result)) {
      return L"failed";
    }
    std::wstring kind = std::to_wstring(value.value().vt);
    if (FAILED(VariantChangeType(value.get(), value.get(), VARIANT_ALPHABOOL, VT_BSTR))) {
      return kind;
    }
    return kind + L":" + value.value().bstrVal;
  }
  std::wstring get(const wchar_t* name) { return get(*part_.Get(), name); }

  Repository repository_ = systemRepository();
  ComPtr<IWbemClassObject> type_;
  ComPtr<IWbemClassObject> part_;
};

TEST_F(ClassObjectTest, PutTakesTheVariantTypeOfTheCimType) {
  EXPECT_EQ(putText(L"Id", L"x"), S_OK);
  EXPECT_EQ(putNumber(L"U32", -1), S_OK); // 32-bit unsigned numbers travel as the same bits
  EXPECT_EQ(putNumber(L"S32", -1), S_OK);
  EXPECT_EQ(putText(L"U64", L"18446744073709551615"), S_OK);
  EXPECT_EQ(putText(L"When", L"20240131120000.000000+060"), S_OK);
  EXPECT_EQ(putNumber(L"U16", 65535), S_OK);
  EXPECT_EQ(put(L"U8",
                [](VARIANT& value) {
                  value.vt = VT_UI1;
                  value.bVal = 200;
                }),
            S_OK);
  EXPECT_EQ(put(L"Flag",
                [](VARIANT& value) {
                  value.vt = VT_BOOL;
                  value.boolVal = VARIANT_FALSE;
                }),
            S_OK);
  EXPECT_EQ(get(L"Id"), L"8:x");
  EXPECT_EQ(get(L"U32"), L"3:-1");
  EXPECT_EQ(get(L"S32"), L"3:-1");
  EXPECT_EQ(get(L"U64"), L"8:18446744073709551615");
  EXPECT_EQ(get(L"U16"), L"3:65535");
  EXPECT_EQ(get(L"U8"), L"17:200");
  EXPECT_EQ(get(L"Flag"), L"11:False");
  EXPECT_EQ(putNumber(L"U64", 7), S_OK); // a smaller number widens
  EXPECT_EQ(get(L"U64"), L"8:7");
}

TEST_F(ClassObjectTest, PutRefusesEveryOtherType) {
  const HRESULT mismatch = wbemResult(WBEM_E_TYPE_MISMATCH);
  EXPECT_EQ(putNumber(L"Id", 1), mismatch);
  EXPECT_EQ(putText(L"U32", L"1"), mismatch);
  EXPECT_EQ(putText(L"Flag", L"TRUE"), mismatch);
  EXPECT_EQ(putNumber(L"Flag", 1), mismatch);
  EXPECT_EQ(putNumber(L"U8", 256), mismatch);
  EXPECT_EQ(putNumber(L"U16", -1), mismatch);
  EXPECT_EQ(putNumber(L"U64", -1), mismatch);
  EXPECT_EQ(putText(L"U64", L"18446744073709551616"), mismatch);
  EXPECT_EQ(putText(L"U64", L"many"), mismatch);
  EXPECT_EQ(putText(L"When", L"yesterday"), mismatch);
  EXPECT_EQ(putText(L"Bytes", L"1,2"), mismatch);
  EXPECT_EQ(put(L"U32",
                [](VARIANT& value) {
                  value.vt = VT_R8;
                  value.dblVal = 1;
                }),
            mismatch);
  EXPECT_EQ(put(L"Id", [](VARIANT& value) { value.vt = VT_EMPTY; }), mismatch);
  win::Variant text{win::Bstr(L"x")};
  EXPECT_EQ(part_->Put(L"Id", 0, text.get(), CIM_UINT32), mismatch);
  EXPECT_EQ(part_->Put(L"Id", 0, text.get(), CIM_STRING), S_OK);
}

TEST_F(ClassObjectTest, PutNamesWhatItDoesNotKnow) {
  EXPECT_EQ(putText(L"Nothing", L"x"), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(putText(L"__CLASS", L"x"), wbemResult(WBEM_E_READ_ONLY));
  EXPECT_EQ(putText(nullptr, L"x"), wbemResult(WBEM_E_INVALID_PARAMETER));
  win::Variant text{win::Bstr(L"x")};
  EXPECT_EQ(part_->Put(L"Id", 1, text.get(), 0), wbemResult(WBEM_E_INVALID_PARAMETER));
}

TEST_F(ClassObjectTest, NullAndDefaults) {
  EXPECT_EQ(get(L"Maker"), L"8:Acme");
  EXPECT_EQ(put(L"Maker", [](VARIANT& value) { value.vt = VT_NULL; }), S_OK);
  EXPECT_EQ(get(L"Maker"), L"1");
  EXPECT_EQ(part_->Delete(L"Maker"), WBEM_S_RESET_TO_DEFAULT);
  EXPECT_EQ(get(L"Maker"), L"8:Acme");
  EXPECT_EQ(get(L"U32"), L"1");
  EXPECT_EQ(get(L"Nothing"), L"failed");
}

TEST_F(ClassObjectTest, ArraysGoInAndOut) {
  win::Variant bytes;
  bytes.get()->vt = VT_ARRAY | VT_UI1;
  bytes.get()->parray = SafeArrayCreateVector(VT_UI1, 0, 3);
  for (LONG i = 0; i < 3; ++i) {
    BYTE byte = static_cast<BYTE>(250 + i);
    SafeArrayPutElement(bytes.get()->parray, &i, &byte);
  }
  EXPECT_EQ(part_->Put(L"Bytes", 0, bytes.get(), 0), S_OK);
  win::Variant back;
  CIMTYPE type = 0;
  ASSERT_EQ(part_->Get(L"Bytes", 0, back.get(), &type, nullptr), S_OK);
  EXPECT_EQ(type, CIM_UINT8 | CIM_FLAG_ARRAY);
  ASSERT_EQ(back.value().vt, VT_ARRAY | VT_UI1);
  LONG last = 2;
  BYTE byte = 0;
  EXPECT_EQ(SafeArrayGetElement(back.value().parray, &last, &byte), S_OK);
  EXPECT_EQ(byte, 252);
  EXPECT_EQ(part_->Put(L"U8", 0, bytes.get(), 0), wbemResult(WBEM_E_TYPE_MISMATCH));
}

TEST_F(ClassObjectTest, EnumeratesNamesByOrigin) {
  auto count = [&](LONG flags) {
    int found = 0;
    EXPECT_EQ(part_->BeginEnumeration(flags), S_OK);
    for (BSTR name = nullptr; part_->Next(0, &name, nullptr, nullptr, nullptr) == S_OK; ++found) {
      SysFreeString(name);
    }
    return found;
  };
  EXPECT_EQ(count(WBEM_FLAG_NONSYSTEM_ONLY), 13);
  EXPECT_EQ(count(WBEM_FLAG_LOCAL_ONLY), 1);
  EXPECT_EQ(count(WBEM_FLAG_PROPAGATED_ONLY), 12);
  EXPECT_EQ(count(WBEM_FLAG_SYSTEM_ONLY), 10);
  EXPECT_EQ(count(WBEM_FLAG_KEYS_ONLY), 1);
  EXPECT_EQ(part_->EndEnumeration(), S_OK);
  EXPECT_EQ(part_->Next(0, nullptr, nullptr, nullptr, nullptr), wbemResult(WBEM_E_UNEXPECTED));
  SAFEARRAY* names = nullptr;
  ASSERT_EQ(part_->GetNames(nullptr, WBEM_FLAG_ALWAYS | WBEM_FLAG_NONSYSTEM_ONLY, nullptr, &names),
            S_OK);
  LONG high = 0;
  SafeArrayGetUBound(names, 1, &high);
  EXPECT_EQ(high, 12);
  SafeArrayDestroy(names);
  ASSERT_EQ(part_->GetNames(L"key", WBEM_FLAG_ONLY_IF_TRUE, nullptr, &names), S_OK);
  SafeArrayGetUBound(names, 1, &high);
  EXPECT_EQ(high, 0);
  SafeArrayDestroy(names);
}

TEST_F(ClassObjectTest, QualifiersCanBeRead) {
  ComPtr<IWbemQualifierSet> qualifiers;
  ASSERT_EQ(part_->GetPropertyQualifierSet(L"Id", &qualifiers), S_OK);
  win::Variant value;
  LONG flavor = 0;
  EXPECT_EQ(qualifiers->Get(L"KEY", 0, value.get(), &flavor), S_OK);
  EXPECT_EQ(value.value().vt, VT_BOOL);
  EXPECT_NE(flavor & WBEM_FLAVOR_ORIGIN_PROPAGATED, 0);
  win::Variant cimType;
  EXPECT_EQ(qualifiers->Get(L"CIMTYPE", 0, cimType.get(), nullptr), S_OK);
  EXPECT_STREQ(cimType.value().bstrVal, L"string");
  EXPECT_EQ(qualifiers->Get(L"read", 0, nullptr, nullptr), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(part_->GetPropertyQualifierSet(L"Nothing", &qualifiers), wbemResult(WBEM_E_NOT_FOUND));
}

TEST_F(ClassObjectTest, OnlyAConcreteClassSpawns) {
  auto abstractType =
      adopt<IWbemClassObject>(new ClassObject(Object::ofClass(repository_.findClass(L"Thing"))));
  ComPtr<IWbemClassObject> none;
  EXPECT_EQ(abstractType->SpawnInstance(0, &none), wbemResult(WBEM_E_INCOMPLETE_CLASS));
  EXPECT_EQ(none.Get(), nullptr);
  EXPECT_EQ(type_->SpawnInstance(1, &none), wbemResult(WBEM_E_INVALID_PARAMETER));
}

TEST_F(ClassObjectTest, ClonesCompareAndInherit) {
  putText(L"Id", L"x");
  ComPtr<IWbemClassObject> copy;
  ASSERT_EQ(part_->Clone(&copy), S_OK);
  EXPECT_EQ(part_->CompareTo(0, copy.Get()), WBEM_S_SAME);
  putText(L"Id", L"y");
  EXPECT_EQ(part_->CompareTo(0, copy.Get()), WBEM_S_DIFFERENT);
  EXPECT_EQ(get(*copy.Get(), L"__RELPATH"), L"8:Part.Id=\"x\"");
  EXPECT_EQ(part_->InheritsFrom(L"thing"), S_OK);
  EXPECT_EQ(part_->InheritsFrom(L"Other"), WBEM_S_FALSE);
  BSTR origin = nullptr;
  ASSERT_EQ(part_->GetPropertyOrigin(L"Id", &origin), S_OK);
  EXPECT_STREQ(origin, L"Thing");
  SysFreeString(origin);
}

TEST_F(ClassObjectTest, WhatItLacksIsRefused) {
  EXPECT_EQ(type_->SpawnDerivedClass(0, nullptr), wbemResult(WBEM_E_NOT_SUPPORTED));
  EXPECT_EQ(type_->GetMethod(L"Do", 0, nullptr, nullptr), wbemResult(WBEM_E_NOT_FOUND));
  EXPECT_EQ(type_->PutMethod(L"Do", 0, nullptr, nullptr), wbemResult(WBEM_E_NOT_SUPPORTED));
  EXPECT_EQ(type_->Put(L"New", 0, nullptr, CIM_STRING), wbemResult(WBEM_E_NOT_SUPPORTED));
}

} // namespace
} // namespace wmi_host
