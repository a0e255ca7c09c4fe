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
      [abstract] class Thing {
        [key, read] string Id; uint32 U32; sint32 S32; uint64 U64; uint8 U8; uint16 U16;
        boolean Flag = TRUE; datetime When; string Names[] = {"one", "two"};
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
  std::wstring get(const wchar_t* name) {
    win::Variant value;
    HRESULT result = part_->Get(name, 0, value.get(), nullptr, nullptr);
    if (FAILED(result)) {
      return L"failed";
    }
    std::wstring kind = std::to_wstring(value.value().vt);
    if (FAILED(VariantChangeType(value.get(), value.get(), VARIANT_ALPHABOOL, VT_BSTR))) {
      return kind;
    }
    return kind + L":" + value.value().bstrVal;
  }

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
  EXPECT_EQ(putText(L"Names", L"one"), mismatch);
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
  EXPECT_EQ(get(L"U32"), L"1");
  EXPECT_EQ(get(L"Nothing"), L"failed");
  putText(L"Id", L"x");
  EXPECT_EQ(get(L"__RELPATH"), L"8:Part.Id=\"x\"");
}

TEST_F(ClassObjectTest, AnArrayIsGivenAsASafeArray) {
  win::Variant names;
  CIMTYPE type = 0;
  ASSERT_EQ(part_->Get(L"Names", 0, names.get(), &type, nullptr), S_OK);
  EXPECT_EQ(type, CIM_STRING | CIM_FLAG_ARRAY);
  ASSERT_EQ(names.value().vt, VT_ARRAY | VT_BSTR);
  LONG last = 1;
  BSTR text = nullptr;
  ASSERT_EQ(SafeArrayGetElement(names.value().parray, &last, &text), S_OK);
  EXPECT_STREQ(text, L"two");
  SysFreeString(text);
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
  EXPECT_EQ(count(WBEM_FLAG_NONSYSTEM_ONLY), 10);
  EXPECT_EQ(count(WBEM_FLAG_LOCAL_ONLY), 1);
  EXPECT_EQ(part_->EndEnumeration(), S_OK);
  EXPECT_EQ(part_->Next(0, nullptr, nullptr, nullptr, nullptr), wbemResult(WBEM_E_UNEXPECTED));
}

TEST_F(ClassObjectTest, OnlyAConcreteClassSpawns) {
  auto abstractType =
      adopt<IWbemClassObject>(new ClassObject(Object::ofClass(repository_.findClass(L"Thing"))));
  ComPtr<IWbemClassObject> none;
  EXPECT_EQ(abstractType->SpawnInstance(0, &none), wbemResult(WBEM_E_INCOMPLETE_CLASS));
  EXPECT_EQ(none.Get(), nullptr);
  EXPECT_EQ(type_->SpawnInstance(1, &none), wbemResult(WBEM_E_INVALID_PARAMETER));
}

} // namespace
} // namespace wmi_host
