#include "RecordedTrace.h"
#include "proxy/CIMDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using model::DeviceEvent;
using model::Fields;
using model::Instance;
using proxy::CIMDevice;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

CIMDevice deviceOf(const Fields& record) {
  return CIMDevice("Scanner", "S1", record);
}

Fields fieldsOf(const CIMDevice& device) {
  return device.fields();
}

std::string stored(const std::string& type, const std::string& value) {
  const CIMDevice device = deviceOf({{"f", type, value}});
  return device.fields().at(0)[1] == type ? device.fields().at(0)[2] : "wrong type";
}

TEST(CIMDevice, IsBuiltFromAnEventsClassIdAndFields) {
  DeviceEvent event;
  event.className = "Scale";
  event.deviceId = "SCALE1";
  event.provider = "UPOS_Scale";
  event.fields = {{"DeviceID", "string", "SCALE1"}};
  const CIMDevice device(event);
  EXPECT_EQ(device.getClassName(), "Scale");
  EXPECT_EQ(device.getDeviceId(), "SCALE1");
  EXPECT_THAT(device.instances(), IsEmpty());
  EXPECT_THAT(fieldsOf(device), ElementsAre(ElementsAre("DeviceID", "string", "SCALE1")));
}

TEST(CIMDevice, TakesTheIdOfTheRecordAndNotOfTheField) {
  EXPECT_EQ(CIMDevice("c", "one", {{"DeviceID", "string", "two"}}).getDeviceId(), "one");
}

TEST(CIMDevice, OrdersFieldsByName) {
  const CIMDevice device = deviceOf(
      {{"b", "string", "2"}, {"c", "uint32", "3"}, {"B", "string", "1"}, {"a", "string", ""}});
  EXPECT_THAT(fieldsOf(device),
              ElementsAre(ElementsAre("B", "string", "1"), ElementsAre("a", "string", ""),
                          ElementsAre("b", "string", "2"), ElementsAre("c", "uint32", "3")));
}

TEST(CIMDevice, LaterFieldOfTheSameNameReplacesTypeAndValue) {
  const CIMDevice device = deviceOf({{"f", "string", "old"}, {"f", "boolean", "true"}});
  EXPECT_THAT(fieldsOf(device), ElementsAre(ElementsAre("f", "boolean", "true")));
}

TEST(CIMDevice, FieldOfAnUnknownTypeIsNotStored) {
  for (const char* type :
       {"ArrayInt32", "datetime", "end", "", "String", "UINT32", "uint32 ", "int32", "Boolean"}) {
    EXPECT_THAT(fieldsOf(deviceOf({{"f", type, "1"}})), IsEmpty()) << type;
  }
}

TEST(CIMDevice, FieldOfAnUnknownTypeLeavesAnEarlierOneOfItsName) {
  const CIMDevice device = deviceOf({{"f", "string", "kept"}, {"f", "datetime", "lost"}});
  EXPECT_THAT(fieldsOf(device), ElementsAre(ElementsAre("f", "string", "kept")));
}

TEST(CIMDevice, OnlyTwoSpellingsOfTrueAreTrue) {
  EXPECT_EQ(stored("boolean", "true"), "true");
  EXPECT_EQ(stored("boolean", "TRUE"), "true");
  for (const char* text : {"True", "tRUE", "1", "yes", " true", "true ", "", "false", "FALSE"}) {
    EXPECT_EQ(stored("boolean", text), "false") << text;
  }
}

struct NumberRow {
  const char* label;
  const char* text;
  const char* asUint32;
  const char* asUint64;
};

constexpr NumberRow kNumbers[] = {
    {"plain", "42", "42", "42"},
    {"zero", "0", "0", "0"},
    {"leading zeros are decimal", "0010", "10", "10"},
    {"white space before", " \t\r\n7", "7", "7"},
    {"plus", "+7", "7", "7"},
    {"text behind", "12abc", "12", "12"},
    {"blank behind", "12 34", "12", "12"},
    {"fraction", "3.9", "3", "3"},
    {"exponent", "1e3", "1", "1"},
    {"hexadecimal", "0x10", "0", "0"},
    {"no grouping", "1,000", "1", "1"},
    {"largest 32 bit", "4294967295", "4294967295", "4294967295"},
    {"one more", "4294967296", "4294967295", "4294967296"},
    {"largest 64 bit", "18446744073709551615", "4294967295", "18446744073709551615"},
    {"above 64 bit", "18446744073709551616", "4294967295", "18446744073709551615"},
    {"very long", "99999999999999999999999999999999999999999", "4294967295",
     "18446744073709551615"},
    {"negative wraps", "-1", "4294967295", "18446744073709551615"},
    {"minus zero", "-0", "0", "0"},
    {"most negative that wraps", "-4294967295", "1", "18446744069414584321"},
    {"negative out of range", "-99999999999999999999999", "4294967295", "18446744073709551615"},
    {"empty", "", "0", "0"},
    {"blanks only", "   ", "0", "0"},
    {"sign only", "-", "0", "0"},
    {"two signs", "--1", "0", "0"},
    {"word", "abc", "0", "0"},
    {"word before", "abc12", "0", "0"},
    {"infinity", "inf", "0", "0"},
};

TEST(CIMDevice, ReadsNumbersAsAStreamDoes) {
  for (const NumberRow& row : kNumbers) {
    EXPECT_EQ(stored("uint32", row.text), row.asUint32) << row.label;
    EXPECT_EQ(stored("uint64", row.text), row.asUint64) << row.label;
  }
}

TEST(CIMDevice, StoresStringsAsTheyAre) {
  for (const char* text : {"", " ", "true", "12abc", "%s%n", "\xC4\xD6"}) {
    EXPECT_EQ(stored("string", text), text);
  }
}

TEST(CIMDevice, TypedAddersStoreTextAndTypeWord) {
  CIMDevice device = deviceOf({});
  device.addUint32Field("a", 4294967295U);
  device.addUint64Field("b", 18446744073709551615U);
  device.addStringField("c", "text");
  device.addBooleanField("d", true);
  device.addBooleanField("e", false);
  device.addStringField("a", "replaced");
  EXPECT_THAT(fieldsOf(device),
              ElementsAre(ElementsAre("a", "string", "replaced"),
                          ElementsAre("b", "uint64", "18446744073709551615"),
                          ElementsAre("c", "string", "text"), ElementsAre("d", "boolean", "true"),
                          ElementsAre("e", "boolean", "false")));
}

TEST(CIMDevice, ListsAClassAsOftenAsItWasAdded) {
  CIMDevice device = deviceOf({});
  device.addInstance("UPOS_Scanner");
  device.addInstance("UPOS_Hybrid");
  device.addInstance("UPOS_Scanner");
  EXPECT_EQ(device.instanceCount(), 3U);
  EXPECT_THAT(device.instances(), ElementsAre("UPOS_Scanner", "UPOS_Hybrid", "UPOS_Scanner"));
}

TEST(CIMDevice, DeletesTheFirstEntryOfAClassOnly) {
  CIMDevice device = deviceOf({});
  for (const char* name : {"A", "B", "A"}) {
    device.addInstance(name);
  }
  device.deleteInstance("A");
  EXPECT_THAT(device.instances(), ElementsAre("B", "A"));
  device.deleteInstance("a");
  EXPECT_THAT(device.instances(), ElementsAre("B", "A"));
}

TEST(CIMDevice, TracesEachChangeOfItsClasses) {
  CIMDevice device = deviceOf({});
  recorded_trace::clear();
  device.addInstance("UPOS_Scanner");
  device.deleteInstance("UPOS_Scale");
  device.deleteInstance("UPOS_Scanner");
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("Instance count before adding S1 is 0", "Adding instance UPOS_Scanner with ID S1",
                  "Instance count after adding S1 is 1", "Instance count before deleting S1 is 1",
                  "Instance count after deleting S1 is 1", "Instance count before deleting S1 is 1",
                  "Delete instance UPOS_Scanner with ID S1",
                  "Instance count after deleting S1 is 0"));
}

TEST(CIMDevice, MergeTakesTheOthersFieldsAndKeepsTheRest) {
  CIMDevice device = deviceOf({{"kept", "string", "1"}, {"changed", "string", "2"}});
  device.addInstance("A");
  CIMDevice other("Scale", "S2", {{"changed", "uint32", "3"}, {"new", "boolean", "true"}});
  other.addInstance("B");
  device.merge(other);
  EXPECT_THAT(fieldsOf(device),
              ElementsAre(ElementsAre("changed", "uint32", "3"), ElementsAre("kept", "string", "1"),
                          ElementsAre("new", "boolean", "true")));
  EXPECT_EQ(device.getClassName(), "Scanner");
  EXPECT_EQ(device.getDeviceId(), "S1");
  EXPECT_THAT(device.instances(), ElementsAre("A"));
}

} // namespace
