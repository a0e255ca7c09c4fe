#include "PatchedImport.h"
#include "win/Automation.h"

#include <gtest/gtest.h>

#include <system_error>

using test_support::PatchedImport;

namespace {

int callsBeforeFailure = 0;
decltype(WideCharToMultiByte)* realNarrow = nullptr;
decltype(MultiByteToWideChar)* realWiden = nullptr;

int WINAPI failingNarrow(UINT page, DWORD flags, LPCWCH text, int length, LPSTR out, int size,
                         LPCCH unknown, LPBOOL used) {
  return callsBeforeFailure-- > 0 ? realNarrow(page, flags, text, length, out, size, unknown, used)
                                  : 0;
}
int WINAPI failingWiden(UINT page, DWORD flags, LPCCH text, int length, LPWSTR out, int size) {
  return callsBeforeFailure-- > 0 ? realWiden(page, flags, text, length, out, size) : 0;
}

} // namespace

TEST(Automation, EmptyTextsConvertToEmptyTexts) {
  EXPECT_EQ(win::narrow(L""), "");
  EXPECT_EQ(win::widen(""), L"");
}

TEST(Automation, TextSurvivesARoundTrip) {
  EXPECT_EQ(win::narrow(L"SCANNER1"), "SCANNER1");
  EXPECT_EQ(win::widen("SCANNER1"), L"SCANNER1");
  EXPECT_EQ(win::narrow(win::widen("caf\xE9")), "caf\xE9");
}

TEST(Automation, ARefusedConversionThrowsAndGivesNoOtherText) {
  const PatchedImport<decltype(WideCharToMultiByte)> narrowing("WideCharToMultiByte",
                                                               failingNarrow);
  const PatchedImport<decltype(MultiByteToWideChar)> widening("MultiByteToWideChar", failingWiden);
  realNarrow = narrowing.original();
  realWiden = widening.original();
  std::wstring wide;
  for (int granted = 0; granted < 2; ++granted) {
    callsBeforeFailure = granted;
    EXPECT_THROW(win::narrow(L"caf\xE9"), std::system_error);
    callsBeforeFailure = granted;
    EXPECT_THROW(win::widen("caf\xE9"), std::system_error);
    callsBeforeFailure = granted;
    EXPECT_THROW(win::widenInThreadCodePage("caf\xE9", wide), std::system_error);
    callsBeforeFailure = granted;
    EXPECT_THROW(win::bstrInThreadCodePage("caf\xE9"), std::system_error);
  }
}

// What lets an ASCII text be widened without asking the platform.
TEST(Automation, EveryAnsiCodePageHasAsciiAsItIs) {
  std::string ascii;
  for (char each = 0; each >= 0 && each < 0x7F; ++each) {
    ascii += each;
  }
  ascii += '\x7F';
  for (const UINT page : {874U, 932U, 936U, 949U, 950U, 1250U, 1251U, 1252U, 1253U, 1254U, 1255U,
                          1256U, 1257U, 1258U, 65001U}) {
    std::wstring wide(ascii.size(), L'?');
    ASSERT_EQ(MultiByteToWideChar(page, 0, ascii.data(), static_cast<int>(ascii.size()),
                                  wide.data(), static_cast<int>(wide.size())),
              static_cast<int>(ascii.size()))
        << page;
    EXPECT_EQ(wide, std::wstring(ascii.begin(), ascii.end())) << page;
  }
  EXPECT_EQ(win::widen(ascii), std::wstring(ascii.begin(), ascii.end()));
  EXPECT_EQ(win::bstrInThreadCodePage(ascii).text(), std::wstring(ascii.begin(), ascii.end()));
}

TEST(Automation, ANullBstrReadsAsEmpty) {
  win::Bstr none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none.text(), L"");
}

TEST(Automation, AVariantTakesOwnershipOfTheText) {
  win::Bstr text(L"value");
  const BSTR address = text.get();
  win::Variant variant(std::move(text));
  EXPECT_EQ(variant.value().vt, VT_BSTR);
  EXPECT_EQ(variant.value().bstrVal, address);
}
