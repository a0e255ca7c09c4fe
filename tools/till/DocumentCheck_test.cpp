#include "till/DocumentCheck.h"
#include "till/DocumentReportText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace till {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = DocumentReport::Kind;
using Strategy = Finding::Strategy;

constexpr const char* kDeclaration = "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";

std::string field(const std::string& name, const std::string& value,
                  const std::string& type = "string") {
  return "<field name=\"" + name + "\" type=\"" + type + "\">" + value + "</field>";
}

std::string instance(const std::string& id, const std::string& maker, const std::string& more = {},
                     const std::string& name = "UPOS_Scanner") {
  return "<instance name=\"" + name + "\">" + field("DeviceID", id) +
         (maker.empty() ? "" : field("ManufacturerName", maker)) + more + "</instance>";
}

DocumentReport checkAnswer(const std::string& instances) {
  return checkDocument("<response>" + instances + "</response>");
}

std::string event(const std::string& attributes, const std::string& fields) {
  return kDeclaration + ("<event " + attributes + ">") + fields + "</event>";
}

const std::string kAdded =
    R"(type="addInstance" classname="UPOS_Scanner" modifyInstanceCode="" provider="UPOS_Scanner")";
const std::string kScanner = field("DeviceID", "S1") + field("ManufacturerName", "Veltran");

/// "STRATEGY CODE FIELD" of each finding.
std::vector<std::string> findings(const DocumentReport& report) {
  std::vector<std::string> result;
  for (const Finding& each : report.findings) {
    std::string line = each.strategy == Strategy::Both      ? "both "
                       : each.strategy == Strategy::Adapter ? "adapter "
                                                            : "proxy ";
    result.push_back(line + each.code + (each.field.empty() ? "" : " " + each.field));
  }
  return result;
}

std::string onlyText(const DocumentReport& report) {
  return report.findings.size() == 1 ? report.findings[0].text : "not one finding";
}

/// "1 published stored": whether the device was cached, and what happens in the proxy strategy.
std::vector<std::string> proxyVerdicts(const DocumentReport& report) {
  std::vector<std::string> result;
  for (const EventVerdict& each : report.eventVerdicts) {
    if (each.strategy == Strategy::Proxy) {
      result.push_back((each.isCached ? "cached: " : "new: ") +
                       std::string(each.published ? "published, " : "silent, ") + each.effect);
    }
  }
  return result;
}

// -- answers

TEST(CheckedAnswer, ThatIsReadWholeHasNoFindings) {
  const DocumentReport report =
      checkAnswer(instance("S1", "Veltran", field("GoodScanCount", "2147483647", "uint32")) +
                  instance("S2", "OEM", field("CapUpdateFirmware", "false", "boolean")) +
                  instance("P1", "ORVEX", field("InstallationDate", "20220214", "datetime"),
                           "UPOS_POSPrinter"));
  EXPECT_EQ(report.kind, Kind::Answer);
  EXPECT_EQ(report.status, 0);
  ASSERT_EQ(report.instances.size(), 3U);
  EXPECT_TRUE(report.instances[2].kept);
  EXPECT_EQ(report.instances[2].device, "P1");
  EXPECT_THAT(findings(report), IsEmpty());
  EXPECT_FALSE(report.hasProblems);
}

TEST(CheckedAnswer, ThatIsUnreadableIsNamedWithItsPlace) {
  const DocumentReport report = checkDocument("<response>\n  <instance></response>");
  EXPECT_EQ(report.kind, Kind::Unreadable);
  EXPECT_EQ(report.status, -1);
  EXPECT_EQ(report.message, "expected end of tag 'instance'");
  EXPECT_EQ(report.line, 2U);
  EXPECT_EQ(report.column, 15U);
  EXPECT_TRUE(report.hasProblems);
}

TEST(CheckedAnswer, ThatMeetsALimitIsUnreadableForThatReason) {
  std::string deep;
  for (int i = 0; i < 10'001; ++i) {
    deep += "<a>";
  }
  EXPECT_EQ(checkDocument(deep).message, "Elements are nested too deeply");
  const DocumentReport doctype = checkDocument("<!DOCTYPE a><a/>");
  EXPECT_EQ(doctype.status, -1);
  EXPECT_THAT(onlyText(doctype), HasSubstr("no document type declaration is accepted"));
  std::string nested;
  for (int i = 0; i < 5000; ++i) {
    nested += R"(<field name="a">)";
  }
  nested += std::string(100'000, 'x');
  for (int i = 0; i < 5000; ++i) {
    nested += "</field>";
  }
  EXPECT_EQ(checkAnswer("<instance name=\"a\">" + nested + "</instance>").message,
            "Nested fields repeat too much of the document");
}

TEST(CheckedAnswer, WithAnErrorIsAnErrorAnswerWithoutAProblem) {
  const DocumentReport report = checkAnswer("<error name=\"busy\"/>" + instance("S1", "Other"));
  EXPECT_EQ(report.status, 1);
  EXPECT_THAT(report.instances, IsEmpty());
  EXPECT_THAT(findings(report), ElementsAre("adapter error-answer"));
  EXPECT_FALSE(report.hasProblems);
}

TEST(CheckedAnswer, SaysWhyAnInstanceIsDiscarded) {
  const auto why = [](const std::string& maker, const std::string& name) {
    return onlyText(checkAnswer(instance("D1", maker, "", name)));
  };
  EXPECT_EQ(why("", "UPOS_Scanner"), "discarded: it has no field ManufacturerName");
  EXPECT_EQ(why("veltran", "UPOS_Scanner"), "discarded: ManufacturerName is \"veltran\", and upper "
                                            "and lower case count: Veltran");
  EXPECT_EQ(why(" ORVEX\n", "UPOS_Scanner"),
            "discarded: ManufacturerName is \" ORVEX\n\" with blanks or line ends around it, which "
            "belong to the value");
  EXPECT_EQ(why("OEM", "UPOS_LogicalDevice"),
            "discarded: OEM is kept for scanners and scales only, and the instance's name is "
            "\"UPOS_LogicalDevice\"");
  EXPECT_EQ(
      why("Castellan", "UPOS_PINPad"),
      "discarded: ManufacturerName is \"Castellan\", which is none of Veltran, ORVEX and OEM");
}

TEST(CheckedAnswer, NamesTheFieldsThatAreCarriedOver) {
  const DocumentReport report = checkAnswer(
      instance("D1", "Other", field("ModelName", "foreign") + field("SerialNumber", "1")) +
      "<instance name=\"UPOS_Scanner\"/>" + instance("S1", "Veltran", field("SerialNumber", "2")) +
      instance("D2", "Other"));
  ASSERT_EQ(report.instances.size(), 4U);
  EXPECT_TRUE(report.instances[2].kept);
  EXPECT_THAT(findings(report), ElementsAre("adapter discarded", "adapter discarded",
                                            "adapter carried-over ModelName", "adapter discarded"));
  EXPECT_EQ(report.findings[2].instance, 3U);
  EXPECT_EQ(report.findings[2].device, "S1");
  EXPECT_THAT(report.findings[2].text, HasSubstr("\"foreign\""));
}

TEST(CheckedAnswer, ShowsACarriedValueWhereTheOwnOneDoesNotConvert) {
  const DocumentReport report =
      checkAnswer(instance("D1", "Other", field("HoursPoweredCount", "5", "uint32")) +
                  instance("S1", "Veltran", field("HoursPoweredCount", "many", "uint32")));
  EXPECT_THAT(findings(report),
              ElementsAre("adapter discarded", "adapter not-converted HoursPoweredCount",
                          "adapter carried-over HoursPoweredCount"));
}

TEST(CheckedAnswer, NamesFieldsThatReachNoProperty) {
  const DocumentReport report = checkAnswer(instance(
      "S1", "Veltran",
      field("GoodWeightReadCount", "1", "uint32") + field("GoodScanCount", "2147483648", "uint32") +
          field("HoursPoweredCount", "1", "string") + field("ModelName", "1", "uint32") +
          field("CapUpdateFirmware", "yes", "boolean") + field("GoodScanCount", "1", "Uint32") +
          field("CommunicationErrorCount", "-1", "uint64")));
  EXPECT_THAT(findings(report), ElementsAre("adapter no-property GoodWeightReadCount",
                                            "adapter not-converted GoodScanCount",
                                            "adapter type-does-not-fit HoursPoweredCount",
                                            "adapter type-does-not-fit ModelName",
                                            "adapter not-converted CapUpdateFirmware",
                                            "adapter type-does-not-fit GoodScanCount",
                                            "adapter negative CommunicationErrorCount"));
  EXPECT_EQ(report.findings[0].text, "UPOS_Scanner has no such property: the field is left out");
  EXPECT_EQ(report.findings[1].text, "\"2147483648\" is not converted to uint32 (a decimal number, "
                                     "at most 2147483647): the property stays empty");
  EXPECT_EQ(report.findings[5].text, "the type \"Uint32\" is no type word, and the text does not "
                                     "fit the property, whose type is uint32: it stays empty");
}

TEST(CheckedAnswer, NamesRepeatedFieldsAMissingKeyAndAnUnknownClass) {
  EXPECT_THAT(findings(checkAnswer(
                  instance("S1", "Veltran", field("ModelName", "a") + field("modelname", "b")))),
              ElementsAre("adapter repeated-field modelname"));
  EXPECT_THAT(findings(checkAnswer("<instance name=\"UPOS_Scale\">" +
                                   field("ManufacturerName", "ORVEX") + "</instance>")),
              ElementsAre("adapter no-device-id"));
  EXPECT_THAT(findings(checkAnswer(instance("S1", "Veltran", "", "Scanner"))),
              ElementsAre("adapter unknown-class"));
}

TEST(CheckedAnswer, EndsAtANulByteAndAtItsFrame) {
  const std::string whole = "<response>" + instance("S1", "Veltran") + "</response>";
  const DocumentReport report = checkDocument(whole + std::string("\0<", 2));
  EXPECT_EQ(report.status, 0);
  EXPECT_THAT(findings(report), ElementsAre("both nul"));
  EXPECT_THAT(findings(checkDocument("\x1B" + whole + "\x08 more")), IsEmpty());
  EXPECT_THAT(findings(checkDocument("\x1B" + whole)), ElementsAre("adapter no-frame-end"));
}

TEST(CheckedAnswer, ListsTheFirstFindingsAndCountsTheOthers) {
  std::string instances;
  for (std::size_t i = 0; i < DocumentReport::kMostFindings + 5; ++i) {
    instances += "<instance/>";
  }
  const DocumentReport report = checkAnswer(instances);
  EXPECT_EQ(report.findings.size(), DocumentReport::kMostFindings);
  EXPECT_EQ(report.furtherFindings, 5U);
  EXPECT_THAT(toText(report, "x"), HasSubstr("... and 9955 more\n"));
}

// -- events

TEST(CheckedEvent, ThatArrivesInBothStrategiesHasNoFindings) {
  const DocumentReport report = checkDocument(event(kAdded, kScanner) + "\n");
  EXPECT_EQ(report.kind, Kind::Event);
  ASSERT_TRUE(report.event);
  EXPECT_EQ(report.event->device, "S1");
  EXPECT_THAT(findings(report), IsEmpty());
  ASSERT_FALSE(report.eventVerdicts.empty());
  EXPECT_TRUE(report.eventVerdicts[0].published);
  EXPECT_THAT(proxyVerdicts(report),
              ElementsAre("new: published, stored", "cached: silent, changed"));
}

TEST(CheckedEvent, SaysWhatTheCacheMakesOfItsType) {
  const auto verdicts = [](const std::string& attributes) {
    return proxyVerdicts(checkDocument(event(attributes, kScanner)));
  };
  EXPECT_THAT(verdicts(R"(type="modifyInstance" classname="UPOS_Scanner" provider="p")"),
              ElementsAre("new: silent, none", "cached: silent, changed"));
  EXPECT_THAT(verdicts(R"(type="modifyInstance" modifyInstanceCode="1" classname="UPOS_Scanner")"),
              ElementsAre("new: silent, none", "cached: published, changed"));
  EXPECT_THAT(verdicts(R"(type="delInstance" classname="UPOS_Scanner" provider="p")"),
              ElementsAre("new: silent, none", "cached: published, removed"));
  EXPECT_THAT(verdicts(R"(type="moved" classname="UPOS_Scanner")"),
              ElementsAre("new: published, none", "cached: published, none"));
}

TEST(CheckedEvent, SaysWhyItIsDiscarded) {
  const DocumentReport report =
      checkDocument(event(R"(type="addInstance" classname="LineDisplay")",
                          field("DeviceID", "D1") + field("ManufacturerName", "OEM")));
  ASSERT_EQ(report.findings.size(), 1U);
  EXPECT_EQ(report.findings[0].text, "discarded: OEM is kept for scanners and scales only, and the "
                                     "classname is \"LineDisplay\"");
  EXPECT_FALSE(report.eventVerdicts[0].published);
  EXPECT_THAT(proxyVerdicts(report), ElementsAre("new: silent, none", "cached: silent, none"));
}

TEST(CheckedEvent, NamesWhatTheCacheDoesNotKeepAsItIs) {
  const DocumentReport report = checkDocument(
      event(kAdded, kScanner + field("HoursPoweredCount", "many", "uint32") +
                        field("CommunicationErrorCount", "99999999999", "uint32") +
                        field("InstallationDate", "20220214", "datetime") +
                        field("CapUpdateFirmware", "True", "boolean") + field("Colour", "red")));
  EXPECT_THAT(findings(report),
              ElementsAre("proxy changed-value HoursPoweredCount",
                          "proxy changed-value CommunicationErrorCount",
                          "proxy not-stored InstallationDate",
                          "proxy changed-value CapUpdateFirmware", "proxy no-property Colour",
                          "proxy not-converted CommunicationErrorCount"));
  EXPECT_EQ(report.findings[0].text, "\"many\" is stored as 0");
}

TEST(CheckedEvent, ShortClassnamesFindTheDeviceUnderOneClassOnly) {
  const DocumentReport report =
      checkDocument(event(R"(type="addInstance" classname="Scanner" provider="UPOS_Scanner")",
                          kScanner + field("GoodScanCount", "1", "uint32")));
  EXPECT_THAT(findings(report),
              ElementsAre("proxy not-listed-by-class", "proxy no-property GoodScanCount"));
}

TEST(CheckedEvent, NamesWhatTheStreamCutsWrong) {
  EXPECT_THAT(findings(checkDocument("<event " + kAdded + ">" + kScanner + "</event>")),
              ElementsAre("proxy no-start-marker"));
  EXPECT_THAT(
      findings(checkDocument(kDeclaration + ("<event " + kAdded) + ">" + kScanner + "</event >")),
      ElementsAre("proxy no-end-marker"));
  EXPECT_THAT(
      findings(checkDocument(kDeclaration + ("<events>" + event(kAdded, kScanner).substr(55)) +
                             "<event/></events>")),
      ElementsAre("both further-events", "proxy no-end-marker"));
}

TEST(CheckedEvent, NamesADatagramThatIsTooLong) {
  const std::string longest = event(kAdded, kScanner);
  const std::string filled =
      event(kAdded, kScanner + field("ModelName", std::string(1022 - longest.size() - 46, 'x')));
  const DocumentReport report = checkDocument(filled);
  EXPECT_EQ(report.bytes, 1022U);
  EXPECT_THAT(findings(report), IsEmpty());
  EXPECT_THAT(findings(checkDocument(filled + " ")), ElementsAre("adapter datagram-too-long"));
}

// -- the report

TEST(DocumentReportText, SaysWhatMattersInLinesOf80Columns) {
  const std::string text =
      toText(checkAnswer(instance("S1", "Veltran", field("GoodScanCount", "-", "uint32")) +
                         instance("D1", "other")),
             "answer.xml");
  EXPECT_THAT(text, HasSubstr("an answer, read (status 0)\n2 instances: 1 kept, 1 discarded\n"));
  EXPECT_THAT(text, HasSubstr("1         UPOS_Scanner  S1      kept\n"));
  EXPECT_THAT(text, HasSubstr("PROBLEM  instance 1 (S1), field GoodScanCount, adapter strategy: "));
  EXPECT_THAT(text, HasSubstr("In the proxy strategy no answer is read"));
}

TEST(DocumentReportText, GivesScriptsEveryValue) {
  const ctl::Json unreadable = toJson(checkDocument("<r>\n  </s>"));
  EXPECT_EQ(unreadable["status"], -1);
  EXPECT_EQ(unreadable["line"], 2);
  EXPECT_EQ(unreadable["column"], 5);
  const ctl::Json added = toJson(checkDocument(event(kAdded, kScanner)));
  EXPECT_EQ(added["kind"], "event");
  EXPECT_EQ(added["verdicts"][2]["device_known"], true);
  EXPECT_EQ(added["findings"], ctl::Json::array());
}

} // namespace
} // namespace till
