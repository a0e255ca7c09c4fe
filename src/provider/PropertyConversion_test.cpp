#include "provider/PropertyConversion.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

struct Conversion {
  const char* trace;
  const char* word;
  const char* text;
  VARTYPE type;
  long number; // of VT_I4 and VT_BOOL
};

constexpr Conversion kConversions[] = {
    {"string", "string", "Model 7", VT_BSTR, 0},
    {"string of digits", "string", "42", VT_BSTR, 0},
    {"empty string", "string", "", VT_BSTR, 0},
    {"uint32", "uint32", "42", VT_I4, 42},
    {"uint32 zero", "uint32", "0", VT_I4, 0},
    {"uint32 largest", "uint32", "2147483647", VT_I4, 2147483647},
    {"uint32 with the 32nd bit stays text", "uint32", "2147483648", VT_BSTR, 0},
    {"uint32 of nine digits", "uint32", "999999999", VT_I4, 999999999},
    {"uint32 of ten digits", "uint32", "1000000000", VT_I4, 1000000000},
    {"uint32 with zeros in front", "uint32", "007", VT_I4, 7},
    {"uint32 with many zeros in front", "uint32", "00000000007", VT_I4, 7},
    {"uint32 with blanks", "uint32", " 42 ", VT_I4, 42},
    {"uint32 that is rounded", "uint32", "1.5", VT_I4, 2},
    {"negative", "uint32", "-5", VT_I4, -5},
    {"uint32 that is no number stays text", "uint32", "many", VT_BSTR, 0},
    {"empty uint32 stays text", "uint32", "", VT_BSTR, 0},
    {"uint64 has the same 32 bits", "uint64", "42", VT_I4, 42},
    {"uint64 largest that fits", "uint64", "2147483647", VT_I4, 2147483647},
    {"uint64 beyond stays text", "uint64", "2147483648", VT_BSTR, 0},
    {"uint64 far beyond stays text", "uint64", "18446744073709551615", VT_BSTR, 0},
    {"true", "boolean", "true", VT_BOOL, VARIANT_TRUE},
    {"false", "boolean", "false", VT_BOOL, VARIANT_FALSE},
    {"True", "boolean", "True", VT_BOOL, VARIANT_TRUE},
    {"FALSE", "boolean", "FALSE", VT_BOOL, VARIANT_FALSE},
    {"boolean one", "boolean", "1", VT_BOOL, VARIANT_TRUE},
    {"boolean zero", "boolean", "0", VT_BOOL, VARIANT_FALSE},
    {"yes is no boolean", "boolean", "yes", VT_BSTR, 0},
    {"empty boolean stays text", "boolean", "", VT_BSTR, 0},
    {"an array stays text", "ArrayInt32", "1,2,3", VT_BSTR, 0},
    {"date-times are text", "datetime", "20240131120000.000000+060", VT_BSTR, 0},
    {"no date-time either", "datetime", "yesterday", VT_BSTR, 0},
    {"the end marker stays text", "end", "7", VT_BSTR, 0},
    {"an unknown word stays text", "real32", "1.5", VT_BSTR, 0},
    {"no word stays text", "", "7", VT_BSTR, 0},
};

TEST(PropertyConversion, ConvertsByTheTypeWordAndLeavesOtherTextUnchanged) {
  provider::PropertyTypes types;
  types.fill();
  for (const Conversion& row : kConversions) {
    SCOPED_TRACE(row.trace);
    win::Variant value;
    provider::readProperty(types.typeOf(row.word), row.text, value);
    ASSERT_EQ(value.value().vt, row.type);
    if (row.type == VT_BSTR) {
      const std::wstring_view text(value.value().bstrVal, SysStringLen(value.value().bstrVal));
      EXPECT_EQ(win::narrow(text), row.text);
    } else {
      EXPECT_EQ(row.type == VT_I4 ? value.value().lVal : value.value().boolVal, row.number);
    }
  }
}

} // namespace
