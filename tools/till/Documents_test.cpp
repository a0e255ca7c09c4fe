#include "till/Documents.h"
#include "till/Xml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace till {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

const XmlLibrary kLibrary;

Device scanner() {
  return {"UPOS_Scanner",
          "SCANNER1",
          true,
          {{"ManufacturerName", "string", "Veltran"}, {"GoodScanCount", "uint32", "7"}}};
}

Request read(std::string_view request) {
  return readRequest(request, {kEnumerateInstances, kGetInstance});
}

std::string complaintAbout(std::string_view request,
                           std::initializer_list<std::string_view> types = {kEnumerateInstances,
                                                                            kGetInstance}) {
  try {
    readRequest(request, types);
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

TEST(Request, ThatIsNoUtf8IsReadAsItDeclares) {
  const std::string body = "<request><type>getInstance</type><class>UPOS_Scale</class>"
                           "<id>W\xE4hrung \x80</id></request>";
  EXPECT_EQ(read("<?xml version='1.0' encoding='windows-1252'?>" + body).id,
            "W\xC3\xA4hrung \xE2\x82\xAC");
  EXPECT_THAT(complaintAbout("<?xml version='1.0' encoding='UTF-8'?>" + body),
              StartsWith("malformed request: "));
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

TEST(UpdateRequest, IsAcceptedInAnyWellFormedShape) {
  for (const char* request :
       {"<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
        "<request><type>updateInstances</type></request>",
        "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\" ?>\r\n"
        "<request>\n <type>updateInstances</type>\n</request>",
        "<request><type>updateInstances</type></request>",
        "<request><class>UPOS_Scale</class><type>updateInstances</type><id>S</id></request>"}) {
    EXPECT_EQ(complaintAbout(request, {kUpdateInstances}), "no complaint") << request;
  }
}

TEST(UpdateRequest, IsNoOtherRequest) {
  const struct {
    const char* request;
    const char* complaint;
  } kRows[] = {
      {"", "malformed request: "},
      {"rubbish</request>", "malformed request: "},
      {"<request><type>updateInstances</request>", "malformed request: "},
      {"<request></request>", "malformed request: no type"},
      {"<request><type>updateinstances</type></request>", "unknown request type 'updateinstances'"},
      {"<request><type>enumerateInstances</type><class>UPOS_Scale</class></request>",
       "unknown request type 'enumerateInstances'"},
  };
  for (const auto& row : kRows) {
    EXPECT_THAT(complaintAbout(row.request, {kUpdateInstances}), StartsWith(row.complaint))
        << row.request;
  }
}

TEST(Response, ListsEachInstanceUnderItsOwnClass) {
  const Device first = scanner();
  const Device second{"UPOS_Scale", "SCALE1", true, {}};
  EXPECT_EQ(responseDocument({&first, &second}),
            R"(<?xml version="1.0" encoding="UTF-8"?><response>)"
            R"(<instance name="UPOS_Scanner"><field name="DeviceID" type="string">SCANNER1</field>)"
            R"(<field name="ManufacturerName" type="string">Veltran</field>)"
            R"(<field name="GoodScanCount" type="uint32">7</field></instance>)"
            R"(<instance name="UPOS_Scale"><field name="DeviceID" type="string">SCALE1</field>)"
            R"(</instance></response>)");
}

TEST(Response, MayBeWithoutInstances) {
  EXPECT_EQ(responseDocument({}), R"(<?xml version="1.0" encoding="UTF-8"?><response></response>)");
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

TEST(ErrorAnswer, NamesTheError) {
  EXPECT_EQ(
      errorDocument("no <type>"),
      R"(<?xml version="1.0" encoding="UTF-8"?><response><error name="no &lt;type&gt;"/></response>)");
}

TEST(HugeAnswer, HoldsAsManyInstancesAsAskedForAllToBeKept) {
  const XmlElement root = readXml(hugeDocument("UPOS_Scale", 1000));
  ASSERT_EQ(root.children.size(), 1000U);
  EXPECT_EQ(*root.children[999].attribute("name"), "UPOS_Scale");
  EXPECT_EQ(root.children[999].children[0].text, "HUGE001000");
  EXPECT_EQ(root.children[999].children[1].text, "Veltran");
}

TEST(EventDocument, IsExactlyWhatTheProtocolShows) {
  EXPECT_EQ(eventDocument(scanner(), "Scanner", "modifyInstance", "1", EventFields::DatagramOnly),
            "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
            R"(<event type="modifyInstance" classname="Scanner" modifyInstanceCode="1" )"
            R"(provider="UPOS_Scanner"><field name="DeviceID" type="string">SCANNER1</field>)"
            R"(<field name="ManufacturerName" type="string">Veltran</field></event>)");
}

TEST(EventDocument, MayCarryAllFieldsOfTheDevice) {
  EXPECT_THAT(eventDocument(scanner(), "Scanner", "addInstance", "", EventFields::All),
              HasSubstr(R"(<field name="GoodScanCount" type="uint32">7</field></event>)"));
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
