#include "till/Documents.h"
#include "till/Xml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace till {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const XmlLibrary kLibrary;

Request read(std::string_view request) {
  return readRequest(request, {kEnumerateInstances, kGetInstance});
}

std::string complaintAbout(std::string_view request) {
  try {
    read(request);
  } catch (const RequestError& problem) {
    return problem.what();
  }
  return "no complaint";
}

TEST(Request, IsReadWithAnyDeclaration) {
  const std::string body =
      "<request><type>getInstance</type><class>UPOS_Scale</class><id>SCALE1</id></request>";
  for (const char* declaration :
       {"", R"(<?xml version="1.0" encoding="UTF-8" standalone="no" ?>)",
        "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>", "<?xml version='1.0'?>\r\n",
        R"(<?xml version="1.0" encoding="UTF-16" standalone="no" ?>)",
        R"(<?xml version="1.0" encoding="windows-1252"?>)"}) {
    const Request request = read(declaration + body);
    EXPECT_EQ(request.type, "getInstance") << declaration;
    EXPECT_EQ(request.className, "UPOS_Scale") << declaration;
    EXPECT_EQ(request.id, "SCALE1") << declaration;
  }
}

TEST(Request, ForAnEnumerationHasNoId) {
  const Request request =
      read("<request>\n <type>enumerateInstances</type>\n <class>UPOS_Scanner</class>\n</request>");
  EXPECT_EQ(request.type, "enumerateInstances");
  EXPECT_EQ(request.className, "UPOS_Scanner");
  EXPECT_EQ(request.id, "");
}

TEST(Request, IsUnescaped) {
  EXPECT_EQ(read("<request><type>getInstance</type><class>A&lt;B</class>"
                 "<id>Tom &amp; <![CDATA[<Jerry>]]></id></request>")
                .id,
            "Tom & <Jerry>");
}

TEST(Request, IsUtf8WhateverItDeclares) {
  const std::string body = "<request><type>getInstance</type><class>UPOS_Scale</class>"
                           "<id>W\xC3\xA4hrung \xE2\x82\xAC</id></request>";
  for (const char* declaration : {"", "<?xml version='1.0' encoding='windows-1252'?>",
                                  "<?xml version='1.0' encoding='UTF-16'?>"}) {
    EXPECT_EQ(read(declaration + body).id, "W\xC3\xA4hrung \xE2\x82\xAC") << declaration;
  }
}

TEST(Request, ThatIsNoUtf8IsMalformedWhateverItDeclares) {
  const std::string body = "<request><type>getInstance</type><class>UPOS_Scale</class>"
                           "<id>W\xE4hrung \x80</id></request>";
  for (const char* declaration : {"", "<?xml version='1.0' encoding='windows-1252'?>"}) {
    EXPECT_THAT(complaintAbout(declaration + body), StartsWith("malformed request: "))
        << declaration;
  }
}

TEST(Request, ThatCannotBeReadIsNamed) {
  const struct {
    const char* request;
    const char* complaint;
  } kRows[] = {
      {"", "malformed request: "},
      {"hello", "malformed request: "},
      {"<request>", "malformed request: "},
      {"<request><type>enumerateInstances</type></request><request/>", "malformed request: "},
      {"<request><type>&undefined;</type></request>", "malformed request: "},
      {"<response/>", "malformed request: the root element is 'response', not 'request'"},
      {"<request/>", "malformed request: no type"},
      {"<request><type></type></request>", "malformed request: no type"},
      {"<request><x><type>enumerateInstances</type></x></request>", "malformed request: no type"},
      {"<request><type>enumerateInstances</type></request>",
       "malformed request: enumerateInstances without a class"},
      {"<request><type>getInstance</type><class>UPOS_Scale</class></request>",
       "malformed request: getInstance without an id"},
      {"<request><type>enumerateInstanceNames</type><class>UPOS_Scale</class></request>",
       "unknown request type 'enumerateInstanceNames'"},
      {"<request><type>updateInstances</type></request>", "unknown request type 'updateInstances'"},
      {"<!DOCTYPE request []><request><type>enumerateInstances</type><class>C</class></request>",
       "malformed request: a document type declaration is not accepted"},
      {"<!DOCTYPE r SYSTEM \"file:///etc/passwd\"><request/>",
       "malformed request: a document type declaration is not accepted"},
      {"<!DOCTYPE r [<!ENTITY a \"aaaa\"><!ENTITY b "
       "\"&a;&a;\">]><request><type>&b;</type></request>",
       "malformed request: a document type declaration is not accepted"},
  };
  for (const auto& row : kRows) {
    EXPECT_THAT(complaintAbout(row.request), StartsWith(row.complaint)) << row.request;
  }
}

TEST(Request, NestedWithoutBoundIsRefused) {
  std::string deep = "<request>";
  for (int i = 0; i < 100000; ++i) {
    deep += "<a>";
  }
  EXPECT_EQ(complaintAbout(deep), "malformed request: elements are nested too deeply");
}

TEST(Request, OfBytesThatAreNoTextIsMalformed) {
  EXPECT_THAT(complaintAbout(std::string(1000, '\0')), StartsWith("malformed request: "));
  EXPECT_THAT(complaintAbout("\xFF\xFE<\0r\0"), StartsWith("malformed request: "));
}

TEST(Response, EscapesWhatMarkupWouldMisread) {
  const Device device{"UPOS_Scale", "A&\"B\"", true, {{"x<y", "string", "1 < 2 > 0\n\t\r"}}};
  const std::string document = responseDocument({&device});
  EXPECT_THAT(document, HasSubstr("A&amp;&quot;B&quot;"));
  EXPECT_THAT(document, HasSubstr("name=\"x&lt;y\""));
  const XmlElement root = readXml(document);
  ASSERT_EQ(root.children.size(), 1U);
  ASSERT_EQ(root.children[0].children.size(), 2U);
  EXPECT_EQ(root.children[0].children[0].text, "A&\"B\"");
  EXPECT_EQ(*root.children[0].children[1].attribute("name"), "x<y");
  EXPECT_EQ(root.children[0].children[1].text, "1 < 2 > 0\n\t\r");
}

TEST(HugeAnswer, HoldsAsManyInstancesAsAskedForAllToBeKept) {
  const XmlElement root = readXml(hugeDocument("UPOS_Scale", 1000));
  ASSERT_EQ(root.children.size(), 1000U);
  EXPECT_EQ(*root.children[999].attribute("name"), "UPOS_Scale");
  EXPECT_EQ(root.children[999].children[0].text, "HUGE001000");
  EXPECT_EQ(root.children[999].children[1].text, "Veltran");
}

TEST(XmlText, IsUtf8OfAllowedCharacters) {
  for (const char* text : {"", "abc\t\r\n", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                           "\xED\x9F\xBF", "\xEF\xBF\xBD", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isXmlText(text)) << text;
  }
  for (const char* text :
       {"\x08", "\x1B", "\x80", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xEF\xBF\xBE",
        "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "a\xFF"}) {
    EXPECT_FALSE(isXmlText(text)) << text;
  }
  EXPECT_FALSE(isXmlText(std::string_view("\0", 1)));
}

} // namespace
} // namespace till
