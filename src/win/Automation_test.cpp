#include "win/Automation.h"

#include <gtest/gtest.h>

TEST(Automation, EmptyTextsConvertToEmptyTexts) {
  EXPECT_EQ(win::narrow(L""), "");
  EXPECT_EQ(win::widen(""), L"");
}

TEST(Automation, TextSurvivesTheWayThereAndBack) {
  EXPECT_EQ(win::narrow(L"SCANNER1"), "SCANNER1");
  EXPECT_EQ(win::widen("SCANNER1"), L"SCANNER1");
  EXPECT_EQ(win::narrow(win::widen("caf\xE9")), "caf\xE9");
}

TEST(Automation, ANullBstrReadsAsEmpty) {
  win::Bstr none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.text(), L"");
}

TEST(Automation, AVariantTakesTheTextOver) {
  win::Bstr text(L"value");
  const BSTR address = text.get();
  win::Variant variant(std::move(text));
  EXPECT_EQ(variant.value().vt, VT_BSTR);
  EXPECT_EQ(variant.value().bstrVal, address);
}
