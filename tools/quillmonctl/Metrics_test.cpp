#include "quillmonctl/Metrics.h"
#include "quillmonctl/MofClasses.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

using namespace ctl;

Json device(const char* id, const char* category, Json more = Json::object()) {
  Json json = {{"__PATH", "x"}, {"DeviceID", id}, {"DeviceCategory", category}};
  json.update(more);
  return json;
}

TillReading listed(std::vector<Json> devices) {
  TillReading reading;
  reading.isUp = true;
  reading.isListed = true;
  reading.devices = std::move(devices);
  return reading;
}

std::string textOf(const TillReading& reading) {
  return metricsText(reading, std::nullopt);
}

bool has(const std::string& text, const std::string& line) {
  return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST(Metrics, ATillThatDoesNotAnswerIsDownAndNothingElse) {
  EXPECT_EQ(textOf({}), "# HELP quillmon_up 1 if WMI and the service answered, else 0.\n"
                        "# TYPE quillmon_up gauge\n"
                        "quillmon_up 0\n"
                        "# EOF\n");
}

TEST(Metrics, ADeviceIsAnInfoSeriesWithEmptyLabelsForWhatItDoesNotReport) {
  const std::string text = textOf(listed({device("S1", "Scanner",
                                                 {{"ManufacturerName", "Veltran"},
                                                  {"ModelName", nullptr},
                                                  {"SerialNumber", "4711"},
                                                  {"FirmwareRevision", "1.2"}})}));
  EXPECT_TRUE(has(text, "quillmon_up 1"));
  EXPECT_TRUE(has(text, "# TYPE quillmon_device_info gauge"));
  EXPECT_TRUE(has(text, "quillmon_device_info{device=\"S1\",category=\"Scanner\","
                        "maker=\"Veltran\",model=\"\",serial=\"4711\",firmware=\"1.2\"} 1"))
      << text;
}

TEST(Metrics, LabelValuesAreEscapedAndHoldNoControlCharacter) {
  const std::string text = textOf(listed({device("a\"b\\c\nd\re\x01", "K\xC3\xB6\xC2\x9B")}));
  EXPECT_NE(text.find("{device=\"a\\\"b\\\\c\\\\x0ad\\\\x0de\\\\x01\","
                      "category=\"K\xC3\xB6\\\\x9b\","),
            std::string::npos)
      << text;
}

TEST(Metrics, CountersOfEveryDeviceComeFromTheList) {
  const std::string text =
      textOf(listed({device("S1", "Scanner", {{"CommunicationErrorCount", 3U}}),
                     device("S2", "Scanner", {{"CommunicationErrorCount", nullptr}}),
                     device("X1", "Toaster", {{"CommunicationErrorCount", 0xFFFFFFFFU}})}));
  EXPECT_TRUE(has(text, "# TYPE quillmon_device_communication_error_total counter\n"
                        "quillmon_device_communication_error_total{device=\"S1\","
                        "category=\"Scanner\"} 3\n"
                        "quillmon_device_communication_error_total{device=\"X1\","
                        "category=\"Toaster\"} 4294967295"))
      << text;
  EXPECT_EQ(count(text, "{device=\"S2\""), 1U); // its info
}

TEST(Metrics, HoursAreSecondsAndDoNotOverflow) {
  const std::string text =
      textOf(listed({device("S1", "Scanner", {{"HoursPoweredCount", 4294967295U}})}));
  EXPECT_TRUE(has(text, "quillmon_device_powered_seconds_total{device=\"S1\","
                        "category=\"Scanner\"} 15461882262000"))
      << text;
}

TEST(Metrics, CountersOfACategoryComeFromItsClass) {
  TillReading reading = listed({device("S1", "Scanner", {{"GoodScanCount", 1U}})});
  reading.categories["UPOS_Scanner"] = {
      device("S1", "Scanner", {{"GoodScanCount", 1843207U}, {"CommunicationErrorCount", 9U}})};
  const std::string text = textOf(reading);
  EXPECT_TRUE(has(text, "# HELP quillmon_scanner_good_scan_total Bar codes read.\n"
                        "# TYPE quillmon_scanner_good_scan_total counter\n"
                        "quillmon_scanner_good_scan_total{device=\"S1\",category=\"Scanner\"} "
                        "1843207"))
      << text;
  EXPECT_EQ(count(text, "_error_total"), 0U); // the list says that of every device
}

TEST(Metrics, WhatIsNoUnsignedNumberIsNoCounter) {
  const std::string text =
      textOf(listed({device("S1", "Scanner", {{"CommunicationErrorCount", "many"}}),
                     device("S2", "Scanner", {{"CommunicationErrorCount", -1}}),
                     device("S3", "Scanner", {{"CommunicationErrorCount", Json::array()}})}));
  EXPECT_EQ(count(text, "_error_total"), 0U);
}

TEST(Metrics, ADeviceThatIsListedTwiceIsOneSeries) {
  const std::string text =
      textOf(listed({device("S1", "Scanner", {{"CommunicationErrorCount", 3U}}),
                     device("S1", "Scanner", {{"CommunicationErrorCount", 4U}, {"ModelName", "x"}}),
                     device("S1", "Scale")}));
  EXPECT_EQ(count(text, "quillmon_device_info{device=\"S1\",category=\"Scanner\""), 1U);
  EXPECT_EQ(count(text, "quillmon_device_info{device=\"S1\",category=\"Scale\""), 1U);
  EXPECT_EQ(count(text, "_error_total{"), 1U);
}

TEST(Metrics, TheLastEventHasItsTime) {
  TillReading reading;
  reading.lastEvent = 1800000000;
  EXPECT_TRUE(has(textOf(reading), "# TYPE quillmon_last_event_timestamp_seconds gauge\n"
                                   "quillmon_last_event_timestamp_seconds 1800000000"));
}

TEST(Metrics, ABaselineTellsTheMissingFromTheNew) {
  const Baseline baseline = {"", {{"S1", "Scanner", "", "", ""}, {"P1", "POSPrinter", "", "", ""}}};
  const std::string text =
      metricsText(listed({device("S1", "Scanner"), device("N1", "Scale")}), baseline);
  for (const char* line : {"quillmon_device_expected{device=\"S1\",category=\"Scanner\"} 1",
                           "quillmon_device_expected{device=\"P1\",category=\"POSPrinter\"} 1",
                           "quillmon_device_expected{device=\"N1\",category=\"Scale\"} 0",
                           "quillmon_device_present{device=\"S1\",category=\"Scanner\"} 1",
                           "quillmon_device_present{device=\"P1\",category=\"POSPrinter\"} 0",
                           "quillmon_device_present{device=\"N1\",category=\"Scale\"} 1"}) {
    EXPECT_TRUE(has(text, line)) << line << "\n" << text;
  }
}

TEST(Metrics, NothingIsMissingWhenNothingWasListed) {
  const std::string text = metricsText({}, Baseline{"", {{"S1", "Scanner", "", "", ""}}});
  EXPECT_TRUE(has(text, "quillmon_device_expected{device=\"S1\",category=\"Scanner\"} 1"));
  EXPECT_EQ(count(text, "quillmon_device_present"), 0U);
}

TEST(Metrics, OnlyClassesWithCountersOfTheirOwnAreAsked) {
  EXPECT_EQ(counterClasses({device("A", "scale"), device("B", "POSPrinter"), device("C", "Belt"),
                            device("D", "Toaster"), device("E", ""), device("F", "Scale"),
                            device("G", "Device"), Json{{"DeviceID", "H"}}}),
            (std::vector<std::string>{"UPOS_POSPrinter", "UPOS_Scale"}));
}

TEST(Metrics, NamesAreWordsInLowerCase) {
  EXPECT_EQ(metricName("UPOS_Scanner", "GoodScanCount"), "quillmon_scanner_good_scan_total");
  EXPECT_EQ(metricName("UPOS_MSR", "ParityLRCErrorTrack1Count"),
            "quillmon_msr_parity_lrc_error_track1_total");
  EXPECT_EQ(metricName("UPOS_POSPrinter", "NVRAMWriteCount"),
            "quillmon_pos_printer_nvram_write_total");
  EXPECT_EQ(metricName("UPOS_PINPad", "ValidPINEntryCount"),
            "quillmon_pin_pad_valid_pin_entry_total");
  EXPECT_EQ(metricName("UPOS_Device", "HoursPoweredCount"),
            "quillmon_device_powered_seconds_total");
}

TEST(Metrics, EveryCounterOfTheMofHasAValidNameOfItsOwn) {
  std::set<std::string> names;
  for (const MofCounter& counter : kMofCounters) {
    const std::string name = metricName(counter.className, counter.property);
    EXPECT_TRUE(names.insert(name).second) << name;
    EXPECT_TRUE(std::all_of(name.begin(), name.end(), [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    })) << name;
    EXPECT_EQ(name.find("__"), std::string::npos) << name;
  }
  EXPECT_GT(names.size(), 70U);
}

} // namespace
