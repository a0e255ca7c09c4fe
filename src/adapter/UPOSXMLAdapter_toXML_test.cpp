#include "RecordedTrace.h"
#include "adapter/RequestSocket.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using xml::DocumentReader;
using xml::narrow;
using xml::Vocabulary;
using xml::XmlLibrary;

namespace {

std::string exchanged;

} // namespace

/// Replaces the request exchange.
std::string adapter::exchangeRequest(const std::string& request) {
  exchanged = request;
  return "answer to " + request;
}

namespace {

using Lines = std::vector<std::string>;

const std::string kDeclaration = R"(<?xml version="1.0" encoding="UTF-8" standalone="no" ?>)";

struct Built {
  std::uint32_t status;
  std::string document;
  std::string console;
};

Built build(const std::string& className, const std::string& type, const std::string& cmd,
            const std::string& id) {
  Built built{99, "as it was", ""};
  testing::internal::CaptureStderr();
  built.status = UPOSXMLAdapter().toXML(className, type, cmd, id, built.document);
  built.console = testing::internal::GetCapturedStderr();
  return built;
}

/// The status is process-wide, so its first value is read before any test runs.
class FirstStatus : public testing::Environment {
public:
  void SetUp() override { value = build("UPOS_Scanner", "request", "getInstance", "ID").status; }

  static inline std::uint32_t value = 99;
};

[[maybe_unused]] const testing::Environment* const firstStatus =
    testing::AddGlobalTestEnvironment(new FirstStatus);

TEST(ToXml, TheFirstSuccessReturnsZero) {
  EXPECT_EQ(FirstStatus::value, 0U);
}

TEST(ToXml, AnEnumerationHasTypeAndClassOnly) {
  EXPECT_EQ(build("UPOS_Scanner", "request", "enumerateInstances", "").document,
            kDeclaration + "<request><type>enumerateInstances</type><class>UPOS_Scanner</class>"
                           "</request>");
}

TEST(ToXml, ALookupCarriesTheId) {
  EXPECT_EQ(build("UPOS_Scale", "request", "getInstance", "SCALE1").document,
            kDeclaration + "<request><type>getInstance</type><class>UPOS_Scale</class>"
                           "<id>SCALE1</id></request>");
}

TEST(ToXml, TheRootIsNamedAfterTheTypeArgument) {
  EXPECT_EQ(build("C", "response", "enumerateInstanceNames", "").document,
            kDeclaration + "<response><type>enumerateInstanceNames</type><class>C</class>"
                           "</response>");
}

TEST(ToXml, EmptyTextGivesEmptyElements) {
  EXPECT_EQ(build("", "request", "", "").document,
            kDeclaration + "<request><type></type><class></class></request>");
}

TEST(ToXml, MarkupInTextIsEscaped) {
  EXPECT_EQ(build("A&B", "request", "<c>", "\"'<![CDATA[x]]>&amp;").document,
            kDeclaration + "<request><type>&lt;c&gt;</type><class>A&amp;B</class>"
                           "<id>\"'&lt;![CDATA[x]]&gt;&amp;amp;</id></request>");
}

TEST(ToXml, TextEndsAtItsFirstNul) {
  EXPECT_EQ(build(std::string("UPOS\0Scale", 10), "request", "getInstance", "ID").document,
            kDeclaration + "<request><type>getInstance</type><class>UPOS</class><id>ID</id>"
                           "</request>");
}

TEST(ToXml, ReplacesWhatTheOutputHeld) {
  std::string out(1000, 'x');
  UPOSXMLAdapter adapter;
  adapter.toXML("C", "request", "getInstance", "", out);
  const std::string first = out;
  adapter.toXML("C", "request", "getInstance", "", out);
  EXPECT_EQ(out, first);
}

TEST(ToXml, TracesItsFourArguments) {
  recorded_trace::clear();
  build("UPOS_Scale", "request", "getInstance", "100% <1>");
  build("not built", "a b", "", "");
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<UPOSXMLAdapter>> toXML(className='UPOS_Scale', type='request', "
                   "cmd='getInstance', id='100% <1>')",
                   "<<UPOSXMLAdapter>> toXML(className='not built', type='a b', cmd='', id='')"}));
}

TEST(ToXml, PrintsNothingOnSuccess) {
  EXPECT_EQ(build("C", "request", "getInstance", "ID").console, "");
}

TEST(ToXml, ATypeThatIsNoElementNameIsADomError) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", "5"},  {"a b", "5"}, {"1st", "5"},  {"<r>", "5"},   {"a\x08", "5"},
      {"&", "5"}, {"-", "5"},   {"a:b", "14"}, {"a:b:c", "14"}};
  for (const auto& [type, code] : rows) {
    SCOPED_TRACE("type '" + type + "'");
    const Built built = build("C", type, "getInstance", "ID");
    EXPECT_EQ(built.status, 2U);
    EXPECT_EQ(built.console, "DOMException code is:  " + code + "\n");
    EXPECT_EQ(built.document, "as it was");
  }
}

TEST(ToXml, AFrameMarkInTheTextNeverReachesTheDocument) {
  for (const std::string control : {"\x08", "\x1B", "\x01", "\x0B", "\x1F"}) {
    const std::string text = "a" + control + "b";
    for (const Built& built :
         {build(text, "request", "getInstance", "ID"), build("C", "request", text, "ID"),
          build("C", "request", "getInstance", text)}) {
      EXPECT_EQ(built.status, 2U);
      EXPECT_EQ(built.console, "DOMException code is:  82\n");
      EXPECT_EQ(built.document, "as it was");
    }
  }
}

// By design: the status is process-wide and never reset, so a success after a failure still returns
// the failure.
TEST(ToXml, ASuccessAfterAFailureReturnsTheFailuresStatus) {
  EXPECT_EQ(build("C", "a b", "getInstance", "ID").status, 2U);
  const Built built = build("C", "request", "getInstance", "ID");
  EXPECT_EQ(built.status, 2U);
  EXPECT_EQ(built.document,
            kDeclaration +
                "<request><type>getInstance</type><class>C</class><id>ID</id></request>");
  EXPECT_EQ(built.console, "");
}

constexpr const XMLCh* kParts[] = {u"type", u"class", u"id"};
constexpr Vocabulary kRequest{kParts, kParts, {}};

TEST(ToXml, BuiltDocumentsCanBeReadBack) {
  const std::vector<std::string> texts = {
      "SCANNER1", "A&B<\"'>]]>",      "  spaces  ",    "line\nfeed",
      "tab\ttab", "carriage\rreturn", "&#8; &amp;lt;", std::string(100'000, 'x')};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 20));
    const std::string document = build(text, "request", "getInstance", text).document;
    const XmlLibrary library;
    DocumentReader reader(document, kRequest);
    ASSERT_EQ(reader.elements(u"class").size(), 1U);
    ASSERT_EQ(reader.elements(u"id").size(), 1U);
    EXPECT_EQ(reader.readField(*reader.elements(u"type")[0])[2], "getInstance");
    EXPECT_EQ(reader.readField(*reader.elements(u"class")[0])[2], text);
    EXPECT_EQ(reader.readField(*reader.elements(u"id")[0])[2], text);
  }
}

#ifndef _WIN32
TEST(ToXml, TextOfTheCodePageIsWrittenAsUtf8) {
  EXPECT_EQ(
      build("C", "request", "getInstance", "M\xC3\xBCller \xE4\xB8\xAD \xF0\x9F\x98\x80").document,
      kDeclaration + "<request><type>getInstance</type><class>C</class>"
                     "<id>M\xC3\xBCller \xE4\xB8\xAD \xF0\x9F\x98\x80</id></request>");
}
#endif

TEST(ToXml, BytesOutsideTheCodePageStillGiveAReadableDocument) {
  const std::string document = build("C", "request", "getInstance", "a\xFF\xFE\xC3").document;
  const XmlLibrary library;
  EXPECT_EQ(DocumentReader(document, kRequest).elements(u"id").size(), 1U);
}

TEST(SendRequest, IsOneExchangeOverTheRequestSocket) {
  EXPECT_EQ(UPOSXMLAdapter().sendRequest("<request/>"), "answer to <request/>");
  EXPECT_EQ(exchanged, "<request/>");
}

} // namespace
