#include "provider/PropertyConversion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Conversion {
  const char* trace;
  const char* word;
  const wchar_t* text;
  VARTYPE type;
  long number; // of VT_I4 and VT_BOOL
};

constexpr Conversion kConversions[] = {
    {"string", "string", L"Model 7", VT_BSTR, 0},
    {"string of digits", "string", L"42", VT_BSTR, 0},
    {"empty string", "string", L"", VT_BSTR, 0},
    {"uint32", "uint32", L"42", VT_I4, 42},
    {"uint32 zero", "uint32", L"0", VT_I4, 0},
    {"uint32 largest", "uint32", L"2147483647", VT_I4, 2147483647},
    {"uint32 with the 32nd bit stays text", "uint32", L"2147483648", VT_BSTR, 0},
    {"uint32 of nine digits", "uint32", L"999999999", VT_I4, 999999999},
    {"uint32 of ten digits", "uint32", L"1000000000", VT_I4, 1000000000},
    {"uint32 with zeros in front", "uint32", L"007", VT_I4, 7},
    {"uint32 with many zeros in front", "uint32", L"00000000007", VT_I4, 7},
    {"uint32 with blanks", "uint32", L" 42 ", VT_I4, 42},
    {"uint32 that is rounded", "uint32", L"1.5", VT_I4, 2},
    {"negative", "uint32", L"-5", VT_I4, -5},
    {"uint32 that is no number stays text", "uint32", L"many", VT_BSTR, 0},
    {"empty uint32 stays text", "uint32", L"", VT_BSTR, 0},
    {"uint64 has the same 32 bits", "uint64", L"42", VT_I4, 42},
    {"uint64 largest that fits", "uint64", L"2147483647", VT_I4, 2147483647},
    {"uint64 beyond stays text", "uint64", L"2147483648", VT_BSTR, 0},
    {"uint64 far beyond stays text", "uint64", L"18446744073709551615", VT_BSTR, 0},
    {"true", "boolean", L"true", VT_BOOL, VARIANT_TRUE},
    {"True", "boolean", L"True", VT_BOOL, VARIANT_TRUE},
    {"FALSE", "boolean", L"FALSE", VT_BOOL, VARIANT_FALSE},
    {"boolean one", "boolean", L"1", VT_BOOL, VARIANT_TRUE},
    {"boolean zero", "boolean", L"0", VT_BOOL, VARIANT_FALSE},
    {"yes is no boolean", "boolean", L"yes", VT_BSTR, 0},
    {"empty boolean stays text", "boolean", L"", VT_BSTR, 0},
    {"an array stays text", "ArrayInt32", L"1,2,3", VT_BSTR, 0},
    {"date-times are text", "datetime", L"20240131120000.000000+060", VT_BSTR, 0},
    {"no date-time either", "datetime", L"yesterday", VT_BSTR, 0},
    {"the end marker stays text", "end", L"7", VT_BSTR, 0},
    {"an unknown word stays text", "real32", L"1.5", VT_BSTR, 0},
    {"no word stays text", "", L"7", VT_BSTR, 0},
};

TEST(PropertyConversion, ConvertsByTheTypeWordAndLeavesOtherTextUnchanged) {
  provider::PropertyTypes types;
  types.fill();
  for (const Conversion& row : kConversions) {
    SCOPED_TRACE(row.trace);
    win::Variant value{win::Bstr(row.text)};
    provider::convertProperty(types.typeOf(row.word), value);
    ASSERT_EQ(value.value().vt, row.type);
    if (row.type == VT_BSTR) {
      EXPECT_EQ(std::wstring(value.value().bstrVal, SysStringLen(value.value().bstrVal)), row.text);
    } else {
      EXPECT_EQ(row.type == VT_I4 ? value.value().lVal : value.value().boolVal, row.number);
    }
  }
}

} // namespace
