#include "quillmonctl/Baseline.h"
#include "quillmonctl/Failure.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

const KnownDevice kScanner = {"SCANNER1", "Scanner", "Veltran", "VS", "1"};
const KnownDevice kPrinter = {"PRINTER1", "POSPrinter", "ORVEX", "RP", "2"};
const KnownDevice kScale = {"SCALE1", "Scale", "OEM", "S15", "3"};

std::vector<std::string> idsOf(const std::vector<KnownDevice>& devices) {
  std::vector<std::string> ids;
  for (const KnownDevice& device : devices) {
    ids.push_back(device.id);
  }
  return ids;
}

using Ids = std::vector<std::string>;

/// The failure of a call, which is to fail with exit code 2 and an advice.
template <class Call>
std::string failureOf(Call&& call) {
  try {
    call();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.exitCode, ExitCode::WrongCommandLine);
    EXPECT_NE(failure.advice, "");
    return failure.step;
  }
  return "none";
}

TEST(Baseline, AnInstanceIsKnownByWhatItReports) {
  const KnownDevice device = KnownDevice::of(
      {{"DeviceID", "A"}, {"DeviceCategory", nullptr}, {"ModelName", "M"}, {"SerialNumber", 5}});
  EXPECT_EQ(device.id, "A");
  EXPECT_EQ(device.category, "");
  EXPECT_EQ(device.maker, "");
  EXPECT_EQ(device.model, "M");
  EXPECT_EQ(device.serial, "");
}

TEST(Baseline, WhatIsWrittenIsReadAgain) {
  const Baseline written = {"TILL7", {kScanner, {"B\"\n", "", "M\xC3\xBCller", "", ""}}};
  const Baseline read = Baseline::parse(written.toText(), "f");
  EXPECT_EQ(read.computer, "TILL7");
  ASSERT_EQ(read.devices.size(), 2U);
  EXPECT_TRUE(read.devices[0].isSameAs(kScanner));
  EXPECT_EQ(read.devices[0].serial, "1");
  EXPECT_EQ(read.devices[1].id, "B\"\n");
  EXPECT_EQ(read.devices[1].maker, "M\xC3\xBCller");
}

TEST(Baseline, AnEditorMayHaveMarkedTheFileAsUtf8) {
  EXPECT_EQ(Baseline::parse("\xEF\xBB\xBF{\"devices\":[{\"device\":\"A\"}]}", "f").devices.size(),
            1U);
}

TEST(Baseline, WhatIsNoBaselineIsRefusedWithTheFileSName) {
  for (const char* text :
       {"", "garbage", "[]", "{}", "{\"devices\":1}", "{\"devices\":[]}", "{\"devices\":[1]}",
        "{\"devices\":[{}]}", "{\"devices\":[{\"device\":7}]}", "{\"devices\":[{\"device\":\"\"}]}",
        "{\"devices\":[{\"device\":\"A\"}]", "\x01\xFF", "MZ\x90"}) {
    const std::string step = failureOf([&] { Baseline::parse(text, "C:\\b.json"); });
    EXPECT_TRUE(step.starts_with("reading the expected devices from C:\\b.json: it")) << text;
  }
}

TEST(Baseline, AnotherTillSBaselineIsRefused) {
  const Baseline baseline = {"TILL7", {kScanner}};
  EXPECT_EQ(failureOf([&] { baseline.requireComputer("TILL8", "f"); }),
            "reading the expected devices from f: they are those of TILL7, and this is TILL8");
  EXPECT_EQ(failureOf([&] { baseline.requireComputer("till7", "f"); }), "none");
  EXPECT_EQ(failureOf([&] { Baseline{}.requireComputer("TILL8", "f"); }), "none");
}

TEST(Baseline, MissingAndNewDevicesAreTold) {
  const Comparison same = compare({"", {kScanner, kPrinter}}, {kPrinter, kScanner});
  EXPECT_EQ(same.expected, 2U);
  EXPECT_EQ(idsOf(same.missing), Ids());
  EXPECT_EQ(idsOf(same.added), Ids());
  const Comparison other = compare({"", {kScanner, kPrinter}}, {kScale, kScanner});
  EXPECT_EQ(idsOf(other.missing), Ids({"PRINTER1"}));
  EXPECT_EQ(idsOf(other.added), Ids({"SCALE1"}));
}

TEST(Baseline, AnExchangedDeviceIsTheSameAndOneOfAnotherCategoryIsNot) {
  KnownDevice exchanged = kScanner;
  exchanged.serial = "99";
  EXPECT_TRUE(compare({"", {kScanner}}, {exchanged}).missing.empty());
  KnownDevice other = kScanner;
  other.category = "Scale";
  const Comparison comparison = compare({"", {kScanner}}, {other});
  EXPECT_EQ(idsOf(comparison.missing), Ids({"SCANNER1"}));
  EXPECT_EQ(idsOf(comparison.added), Ids({"SCANNER1"}));
}

TEST(Baseline, ADeviceThatIsListedTwiceCountsOnce) {
  const Comparison comparison = compare({"", {kScanner, kScanner}}, {kScale, kScale});
  EXPECT_EQ(comparison.expected, 1U);
  EXPECT_EQ(idsOf(comparison.missing), Ids({"SCANNER1"}));
  EXPECT_EQ(idsOf(comparison.added), Ids({"SCALE1"}));
}

TEST(Baseline, NamesArePrintable) {
  EXPECT_EQ(namesOf({kScanner, {"A\x1B", "B", "", "", ""}}), "SCANNER1 (Scanner), A\\x1b (B)");
}

TEST(Baseline, TheJsonFormNamesBothSides) {
  const Json json = toJson(compare({"", {kPrinter}}, {kScale}));
  EXPECT_EQ(json["expected"], 1);
  EXPECT_EQ(json["missing"][0]["device"], "PRINTER1");
  EXPECT_EQ(json["new"][0]["category"], "Scale");
}

} // namespace
