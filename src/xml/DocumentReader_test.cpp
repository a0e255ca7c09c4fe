#include "xml/DocumentReader.h"
#include "xml/XmlFailure.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"
#include "xml/testing/UnreadableDocuments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using model::Field;
using xml::DocumentReader;
using xml::narrow;
using xml::Vocabulary;
using xml::XmlFailure;
using xml::XmlLibrary;
using xml_testing::repeated;
using xml_testing::UnreadableDocument;
using xml_testing::unreadableDocuments;

namespace {

class DocumentReaderTest : public testing::Test {
protected:
  const XmlLibrary library_;
};

constexpr const XMLCh* kElements[] = {u"a", u"r", u"field"};
constexpr const XMLCh* kAttributes[] = {u"n", u"name", u"type"};
/// The vocabulary of these tests.
constexpr Vocabulary kEverything{kElements, kElements, kAttributes};

std::vector<std::string> names(const DocumentReader& reader, DocumentReader::Elements elements) {
  std::vector<std::string> result;
  for (const DocumentReader::Element* element : elements) {
    result.push_back(reader.attributeOf(*element, u"n"));
  }
  return result;
}

/// The text content of the root element "r".
std::string textOf(const std::string& document) {
  DocumentReader reader(document, kEverything);
  return reader.readField(*reader.elements(u"r")[0])[2];
}

std::string failureOf(const std::string& document) {
  try {
    const DocumentReader reader(document, kEverything);
    return "was read";
  } catch (const XmlFailure& failure) {
    return failure.what();
  }
}

using List = std::vector<std::string>;

TEST_F(DocumentReaderTest, RefusesEveryUnreadableDocument) {
  for (const UnreadableDocument& document : unreadableDocuments()) {
    SCOPED_TRACE(document.label);
    EXPECT_THROW(DocumentReader reader(document.text), XmlFailure);
  }
}

TEST_F(DocumentReaderTest, ThrowsTheLibrarysMessageWithLineAndColumn) {
  EXPECT_EQ(failureOf("<r>\n  </s>"), "expected end of tag 'r' (line 2, column 5)");
  EXPECT_EQ(failureOf("<r>&none;</r>"), "entity 'none' not found (line 1, column 10)");
}

TEST_F(DocumentReaderTest, ReadsElementsUpToItsDepth) {
  constexpr std::size_t kDepth = DocumentReader::kMaximumDepth;
  const auto nested = [](std::size_t depth) {
    return repeated(depth, "<a>") + "deep" + repeated(depth, "</a>");
  };
  DocumentReader reader(nested(kDepth), kEverything);
  const DocumentReader::Elements found = reader.elements(u"a");
  EXPECT_EQ(found.size(), kDepth);
  EXPECT_EQ(reader.readField(*found.front())[2], "deep");
  EXPECT_EQ(failureOf(nested(kDepth + 1)), "Elements are nested too deeply (line 1, column " +
                                               std::to_string(3 * (kDepth + 1) + 1) + ")");
}

TEST_F(DocumentReaderTest, SiblingsDoNotCountAsDepth) {
  const std::string siblings = "<r>" + repeated(100'000, "<a/>") + repeated(100'000, "<a></a>");
  const DocumentReader reader(siblings + "</r>", kEverything);
  EXPECT_EQ(reader.elements(u"a").size(), 200'000U);
}

TEST_F(DocumentReaderTest, FindsElementsInDocumentOrderAtAnyDepth) {
  const DocumentReader reader(
      "<r n='root'><a n='1'><x><a n='2'/></x><a n='3'><a n='4'/></a></a><b n='b'/>"
      "<p:a n='prefixed'/><A n='capital'/><!-- <a n='comment'/> --><a n='5'/></r>",
      kEverything);
  EXPECT_EQ(names(reader, reader.elements(u"a")), (List{"1", "2", "3", "4", "5"}));
  EXPECT_EQ(names(reader, reader.elements(u"r")), (List{"root"}));
  EXPECT_EQ(names(reader, reader.elements(u"none")), List{});
}

TEST_F(DocumentReaderTest, FindsElementsBelowAScopeOnly) {
  const DocumentReader reader(
      "<r><a n='1'><a n='2'><a n='3'/></a><b><a n='4'/></b></a><a n='5'/></r>", kEverything);
  const DocumentReader::Elements all = reader.elements(u"a");
  ASSERT_EQ(all.size(), 5U);
  EXPECT_EQ(names(reader, reader.elementsBelow(*all[0], u"a")), (List{"2", "3", "4"}));
  EXPECT_EQ(names(reader, reader.elementsBelow(*all[1], u"a")), (List{"3"}));
  EXPECT_EQ(names(reader, reader.elementsBelow(*all[4], u"a")), List{});
}

TEST_F(DocumentReaderTest, AnElementComesWithTheFieldsBelowItInDocumentOrder) {
  const DocumentReader reader(
      "<instance name='1'><field name='a'/><x><instance name='2'><field name='b'>"
      "<field name='c'/></field></instance></x><instance name='3'/><field "
      "name='d'/></instance>");
  std::vector<List> found;
  for (const DocumentReader::Element* instance : reader.elements(u"instance")) {
    List& names = found.emplace_back(List{reader.attributeOf(*instance, u"name")});
    for (const DocumentReader::Element* field : reader.elementsBelow(*instance, u"field")) {
      names.push_back(reader.attributeOf(*field, u"name"));
    }
  }
  EXPECT_EQ(found, (std::vector<List>{{"1", "a", "b", "c", "d"}, {"2", "b", "c"}, {"3"}}));
}

TEST_F(DocumentReaderTest, ElementsIncludeTheRoot) {
  const DocumentReader reader("<a n='1'><a n='2'/></a>", kEverything);
  EXPECT_EQ(names(reader, reader.elements(u"a")), (List{"1", "2"}));
}

TEST_F(DocumentReaderTest, AFieldIsNameTypeAndText) {
  DocumentReader reader("<r><field type='string' name='DeviceID'>SCANNER1</field>"
                        "<field/><field name='A &amp; B' type=''> \n x </field></r>");
  const DocumentReader::Elements fields = reader.elements(u"field");
  ASSERT_EQ(fields.size(), 3U);
  EXPECT_EQ(reader.readField(*fields[0]), (Field{"DeviceID", "string", "SCANNER1"}));
  EXPECT_EQ(reader.readField(*fields[1]), (Field{"", "", ""}));
  EXPECT_EQ(reader.readField(*fields[2]), (Field{"A & B", "", " \n x "}));
}

TEST_F(DocumentReaderTest, KeepsOnlyWhatTheProtocolNames) {
  DocumentReader reader(
      "<response x='1' name='root'>text<!-- c --><?p i?><other name='2'>text<instance name='3' "
      "y='4'>"
      "text<b><field name='5' type='6' z='7'>a<c name='8'>b<!-- c --></c><![CDATA[d]]></field></b>"
      "</instance></other><d/></response>");
  const DocumentReader::Elements instances = reader.elements(u"instance");
  ASSERT_EQ(instances.size(), 1U);
  EXPECT_EQ(reader.readField(*instances[0]), (Field{"3", "", "abd"}));
  EXPECT_EQ(reader.attributeOf(*instances[0], u"y"), "");
  const DocumentReader::Elements fields = reader.elementsBelow(*instances[0], u"field");
  ASSERT_EQ(fields.size(), 1U);
  EXPECT_EQ(reader.readField(*fields[0]), (Field{"5", "6", "abd"}));
  EXPECT_TRUE(reader.elements(u"response").empty());
  EXPECT_TRUE(reader.elements(u"c").empty());
}

TEST_F(DocumentReaderTest, AnElementThatIsNotKeptCountsAsDepth) {
  const std::string deep = "<r>" + repeated(DocumentReader::kMaximumDepth, "<x>");
  EXPECT_EQ(failureOf(deep).substr(0, 33), "Elements are nested too deeply (l");
}

TEST_F(DocumentReaderTest, ManyAttributesOfAnElementAreReadInLinearTime) {
  // In quadratic time 250,000 attributes take a minute, within the XML lock.
  std::string document = "<response><instance name='UPOS_Scanner'";
  for (int i = 0; i < 250'000; ++i) {
    document += " a" + std::to_string(i) + "=''";
  }
  const DocumentReader reader(document + "/></response>");
  EXPECT_EQ(reader.attributeOf(*reader.elements(u"instance")[0], u"name"), "UPOS_Scanner");
}

/// The total size of the fields when each instance reads all fields below it, or the error.
std::string readAllFields(const std::string& document) {
  std::size_t read = 0;
  try {
    DocumentReader reader(document);
    for (const DocumentReader::Element* instance : reader.elements(u"instance")) {
      for (const DocumentReader::Element* element : reader.elementsBelow(*instance, u"field")) {
        for (const std::string& text : reader.readField(*element)) {
          read += text.size();
        }
      }
    }
  } catch (const XmlFailure& failure) {
    return failure.what();
  }
  return std::to_string(read);
}

std::string nestedInInstances(std::size_t depth, const std::string& content) {
  return repeated(depth, "<instance>") + content + repeated(depth, "</instance>");
}

std::string nestedInFields(std::size_t depth, const std::string& text) {
  return repeated(depth, "<field>") + text + repeated(depth, "</field>");
}

const std::string kTooMuch = "Nested fields repeat too much of the document";

// Without the budget a document of one megabyte yields a gigabyte of fields.
TEST_F(DocumentReaderTest, NestedFieldsThatRepeatADocumentTooOftenAreRefused) {
  const std::string text(200'000, 'x');
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(7, text) + "</instance>"), "1400000");
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(9, text) + "</instance>"), kTooMuch);
  EXPECT_EQ(readAllFields(nestedInInstances(31, nestedInFields(31, text))), kTooMuch);
  EXPECT_EQ(readAllFields(nestedInInstances(31, repeated(20'000, "<field/>"))), kTooMuch);
}

TEST_F(DocumentReaderTest, ASmallDocumentMayRepeatItsFieldsUpToAMegabyte) {
  const std::string text(1'000, 'x');
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(900, text) + "</instance>"), kTooMuch);
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(700, text) + "</instance>"), "700000");
  EXPECT_EQ(readAllFields(nestedInInstances(1'000, repeated(15, "<field/>") + "<field>x</field>")),
            "1000");
  EXPECT_EQ(readAllFields(nestedInInstances(1'000, repeated(17, "<field/>"))), kTooMuch);
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(1'000, "x") + "</instance>"), "1000");
}

TEST_F(DocumentReaderTest, ManyElementsInNestedOnesAreReadInLinearTime) {
  constexpr std::size_t kDepth = DocumentReader::kMaximumDepth - 2;
  EXPECT_EQ(readAllFields(nestedInInstances(kDepth, repeated(200'000, "<event/>"))), "0");
  EXPECT_EQ(readAllFields("<instance>" + nestedInFields(kDepth, repeated(200'000, "<event/>")) +
                          "</instance>"),
            kTooMuch);
}

TEST_F(DocumentReaderTest, FieldsWithoutNestingStayWithinTheBudget) {
  EXPECT_EQ(readAllFields("<instance>" + repeated(100'000, "<field/>") + "</instance>"), "0");
  EXPECT_EQ(readAllFields("<?xml version='1.0' encoding='ISO-8859-1'?><instance>" +
                          repeated(1'000, "<field name='\xFC' type='\xFC'>\xFC</field>") +
                          "</instance>"),
            std::to_string(3'000 * narrow(u"\u00FC").size()));
}

TEST_F(DocumentReaderTest, TextIsWhatTheLibraryCallsTextContent) {
  EXPECT_EQ(textOf("<r>A&amp;B &lt;&gt;&quot;&apos; &#65;&#x42;</r>"), "A&B <>\"' AB");
  EXPECT_EQ(textOf("<r><![CDATA[<a>&amp;]]>b<![CDATA[]]></r>"), "<a>&amp;b");
  EXPECT_EQ(textOf("<r>a<!-- comment -->b<?target data?>c</r>"), "abc");
  EXPECT_EQ(textOf("<r>a<x>b<y>c</y></x>d</r>"), "abcd");
  EXPECT_EQ(textOf("<r>a\r\nb\rc</r>"), "a\nb\nc");
  EXPECT_EQ(textOf("<r/>"), "");
}

TEST_F(DocumentReaderTest, ReadsUpToTheFirstNul) {
  EXPECT_EQ(textOf(std::string("<r>whole</r>\0<junk", 18)), "whole");
}

TEST_F(DocumentReaderTest, ReadsAByteOrderMarkAndForeignEncodings) {
  EXPECT_EQ(textOf("\xEF\xBB\xBF<r>marked</r>"), "marked");
  EXPECT_EQ(textOf("\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?><r>marked</r>"), "marked");
  EXPECT_EQ(textOf("<?xml version='1.0' encoding='ISO-8859-1'?><r>M\xFCller</r>"),
            narrow(u"M\u00FCller"));
  // The bytes override a declaration that contradicts them.
  EXPECT_EQ(textOf("<?xml version='1.0' encoding='UTF-16'?><r>M\xC3\xBCller</r>"),
            narrow(u"M\u00FCller"));
}

TEST_F(DocumentReaderTest, ReadsHugeValues) {
  const std::string huge(10'000'000, 'x');
  const DocumentReader reader("<r n='" + huge + "'>" + huge + "</r>", kEverything);
  EXPECT_TRUE(reader.attributeOf(*reader.elements(u"r")[0], u"n") == huge);
  EXPECT_TRUE(textOf("<r>" + huge + "</r>") == huge);
}

TEST_F(DocumentReaderTest, OpensNothingOutsideTheDocument) {
  // Each is well-formed and names an unreadable file, so that opening it would fail.
  EXPECT_EQ(textOf("<?xml-stylesheet href='file:///none/such.xsl'?><r>a</r>"), "a");
  EXPECT_EQ(textOf("<r xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance'"
                   " xsi:noNamespaceSchemaLocation='file:///none/such.xsd'>b</r>"),
            "b");
  EXPECT_EQ(textOf("<r xmlns:xi='http://www.w3.org/2001/XInclude'>"
                   "<xi:include href='file:///none/such.xml'/>c</r>"),
            "c");
}

} // namespace
