#include "adapter/UPOSXMLAdapter.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <string>

using model::InstanceList;
using xml::narrow;
using xml::XmlLibrary;

namespace {

/// `text` converted by the system to its ANSI code page.
std::string ansi(const std::wstring& text) {
  char bytes[100] = {};
  WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, bytes, sizeof bytes, nullptr, nullptr);
  return bytes;
}

TEST(CodePage, TextOfADocumentIsInTheSystemsCodePage) {
  const XmlLibrary library;
  EXPECT_EQ(narrow(u"M\u00FCller"), ansi(L"M\u00FCller"));
  EXPECT_EQ(narrow(u"a\u4E2Db"), ansi(L"a\u4E2Db")) << "with or without that character";
}

TEST(CodePage, AnAnswerInUtf8IsConverted) {
  UPOSXMLAdapter adapter;
  EXPECT_EQ(adapter.fromXML("<r><instance><field name='ManufacturerName' type='M\xC3\xBCller'>"
                            "ORVEX</field></instance></r>"),
            0U);
  EXPECT_EQ(adapter.getInstances(),
            (InstanceList{{{"ManufacturerName", ansi(L"M\u00FCller"), "ORVEX"}}}));
}

TEST(CodePage, ARequestIsConvertedToUtf8) {
  std::string out;
  UPOSXMLAdapter().toXML("C", "request", "getInstance", ansi(L"M\u00FCller"), out);
  if (ansi(L"M\u00FCller") == ansi(L"Muller") || ansi(L"M\u00FCller") == "M?ller") {
    EXPECT_NE(out.find("<id>M"), std::string::npos) << "this code page has no such letter";
  } else {
    EXPECT_NE(out.find("<id>M\xC3\xBCller</id>"), std::string::npos) << out;
  }
}

} // namespace
