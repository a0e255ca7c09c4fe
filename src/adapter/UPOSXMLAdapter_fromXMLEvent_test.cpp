#include "RecordedTrace.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/testing/UnreadableDocuments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using model::DeviceEvent;
using model::Fields;
using model::InstanceList;
using xml_testing::UnreadableDocument;
using xml_testing::unreadableDocuments;

namespace {

using Lines = std::vector<std::string>;

std::string field(const std::string& name, const std::string& value) {
  return "<field name='" + name + "' type='string'>" + value + "</field>";
}

std::string event(const std::string& className, const std::string& fields,
                  const std::string& type = "modifyInstance") {
  return "<?xml version='1.0' encoding='UTF-8' standalone='no' ?><event type=\"" + type +
         "\" classname=\"" + className + "\" modifyInstanceCode=\"1\" provider=\"P\">" + fields +
         "</event>";
}

class FromXmlEvent : public testing::Test {
protected:
  void SetUp() override { recorded_trace::clear(); }

  static DeviceEvent read(const std::string& text) { return UPOSXMLAdapter().fromXMLEvent(text); }

  /// True when an event of that class and manufacturer keeps its type and class.
  static bool keeps(const std::string& className, const std::string& manufacturer,
                    const std::string& name = "ManufacturerName") {
    const DeviceEvent result = read(event(className, field(name, manufacturer)));
    if (result.type == "NA") {
      EXPECT_EQ(result.className, "NA");
      return false;
    }
    EXPECT_EQ(result.type, "modifyInstance");
    EXPECT_EQ(result.className, className);
    return true;
  }
};

TEST_F(FromXmlEvent, ReadsAnEvent) {
  const DeviceEvent result =
      read(event("Scanner", field("DeviceID", "SCANNER1") + field("ManufacturerName", "Veltran")));
  EXPECT_EQ(result.deviceId, "SCANNER1");
  EXPECT_EQ(result.type, "modifyInstance");
  EXPECT_EQ(result.className, "Scanner");
  EXPECT_EQ(result.modifyInstanceCode, "1");
  EXPECT_EQ(result.provider, "") << "the proxy strategy's";
  EXPECT_EQ(result.fields, Fields{}) << "the proxy strategy's";
  EXPECT_EQ(recorded_trace::lines(), Lines{});
}

TEST_F(FromXmlEvent, CarriesAnyEventWord) {
  for (const std::string word : {"addInstance", "delInstance", "anything", ""}) {
    EXPECT_EQ(read(event("Scanner", field("ManufacturerName", "ORVEX"), word)).type, word);
  }
}

TEST_F(FromXmlEvent, WithoutAnEventElementItIsNotToBePublished) {
  for (const std::string document : {"<response/>", "<Event type='addInstance'/>"}) {
    const DeviceEvent result = read(document);
    EXPECT_EQ(result.type, "NA");
    EXPECT_EQ(result.className, "NA");
    EXPECT_EQ(result.deviceId, "");
    EXPECT_EQ(result.modifyInstanceCode, "");
  }
}

TEST_F(FromXmlEvent, MissingAttributesAreEmpty) {
  const DeviceEvent result =
      read("<event>" + field("DeviceID", "X") + field("ManufacturerName", "ORVEX") + "</event>");
  EXPECT_EQ(result.deviceId, "X");
  EXPECT_EQ(result.type, "");
  EXPECT_EQ(result.className, "");
  EXPECT_EQ(result.modifyInstanceCode, "");
}

TEST_F(FromXmlEvent, KeepsByManufacturerAndClass) {
  struct Row {
    const char* className;
    const char* manufacturer;
    bool kept;
  };
  const std::vector<Row> rows = {
      {"Scanner", "Veltran", true},  {"Printer", "Veltran", true},   {"Printer", "ORVEX", true},
      {"", "ORVEX", true},           {"Scanner", "OEM", true},       {"Scale", "OEM", true},
      {"UPOS_Scanner", "OEM", true}, {"MyScale2", "OEM", true},      {"Printer", "OEM", false},
      {"scanner", "OEM", false},     {"SCALE", "OEM", false},        {"", "OEM", false},
      {"Scanner", "veltran", false}, {"Scanner", "orvex", false},    {"Scanner", "oem", false},
      {"Scanner", "ORVEX ", false},  {"Scanner", "Somebody", false}, {"Scanner", "", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(keeps(row.className, row.manufacturer), row.kept)
        << row.className << " of " << row.manufacturer;
  }
}

TEST_F(FromXmlEvent, FieldNamesIgnoreCase) {
  EXPECT_TRUE(keeps("Printer", "ORVEX", "manufacturername"));
  EXPECT_TRUE(keeps("Printer", "ORVEX", "MANUFACTURERNAME"));
  EXPECT_FALSE(keeps("Printer", "ORVEX", "Manufacturer"));
  EXPECT_EQ(read(event("Scanner", field("deviceid", "A"))).deviceId, "A");
  EXPECT_EQ(read(event("Scanner", field("DEVICEID", "A"))).deviceId, "A");
  EXPECT_EQ(read(event("Scanner", field("Device", "A"))).deviceId, "");
}

TEST_F(FromXmlEvent, AForeignEventKeepsItsIdAndCode) {
  const DeviceEvent result =
      read(event("Scanner", field("ManufacturerName", "Somebody") + field("DeviceID", "S1")));
  EXPECT_EQ(result.type, "NA");
  EXPECT_EQ(result.className, "NA");
  EXPECT_EQ(result.deviceId, "S1");
  EXPECT_EQ(result.modifyInstanceCode, "1");
}

TEST_F(FromXmlEvent, ALaterIdWinsAndALaterManufacturerDoesNotDiscard) {
  const DeviceEvent result =
      read(event("Scanner", field("DeviceID", "first") + field("ManufacturerName", "Somebody") +
                                field("ManufacturerName", "ORVEX") +
                                field("ManufacturerName", "Somebody") + field("DeviceID", "last")));
  EXPECT_EQ(result.deviceId, "last");
  EXPECT_EQ(result.type, "modifyInstance");
}

TEST_F(FromXmlEvent, ALaterEmptyIdOverwritesToo) {
  EXPECT_EQ(read(event("Scanner", field("DeviceID", "first") + field("DeviceID", ""))).deviceId,
            "");
}

TEST_F(FromXmlEvent, OnlyTheFirstEventIsRead) {
  const DeviceEvent result =
      read("<events><event type='addInstance' classname='Printer'>" + field("DeviceID", "P1") +
           "</event><event type='delInstance' classname='Scanner' modifyInstanceCode='2'>" +
           field("DeviceID", "S1") + field("ManufacturerName", "ORVEX") + "</event></events>");
  EXPECT_EQ(result.deviceId, "P1");
  EXPECT_EQ(result.type, "NA") << "the second event's manufacturer is not the first one's";
  EXPECT_EQ(result.modifyInstanceCode, "");
}

TEST_F(FromXmlEvent, FieldsAreFoundAtAnyDepthBelowTheEventOnly) {
  const DeviceEvent result =
      read("<r>" + field("DeviceID", "before") + "<event type='t' classname='c'><a><b>" +
           field("DeviceID", "inside") + "</b></a>" + field("ManufacturerName", "ORVEX") +
           "</event>" + field("DeviceID", "after") + "</r>");
  EXPECT_EQ(result.deviceId, "inside");
  EXPECT_EQ(result.type, "t");
  EXPECT_EQ(result.className, "c");
}

TEST_F(FromXmlEvent, ReadsUpToTheFirstZeroByte) {
  const std::string document = event("Scanner", field("ManufacturerName", "ORVEX"));
  EXPECT_EQ(read(document + std::string("\0junk<", 6)).type, "modifyInstance");
  EXPECT_EQ(read(std::string("\0", 1) + document).type, "NA");
}

TEST_F(FromXmlEvent, LeavesTheInstancesAlone) {
  UPOSXMLAdapter adapter;
  adapter.fromXMLEvent(event("Scanner", field("ManufacturerName", "ORVEX")));
  EXPECT_EQ(adapter.getInstances(), InstanceList{});
}

TEST_F(FromXmlEvent, NothingComesFromAnUnreadableDocument) {
  for (const UnreadableDocument& document : unreadableDocuments()) {
    SCOPED_TRACE(document.label);
    recorded_trace::clear();
    const DeviceEvent result = read(document.text);
    EXPECT_EQ(result.type, "NA");
    EXPECT_EQ(result.className, "NA");
    EXPECT_EQ(result.deviceId, "");
    EXPECT_EQ(result.modifyInstanceCode, "");
    EXPECT_EQ(result.provider, "");
    EXPECT_EQ(result.fields, Fields{});
    const Lines lines = recorded_trace::lines();
    ASSERT_EQ(lines.size(), 2U) << testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "<<XMLAdapter XML Exception >> : ");
    EXPECT_THAT(lines[1], testing::HasSubstr(" (line "));
  }
}

} // namespace
