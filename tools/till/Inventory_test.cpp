#include "till/Inventory.h"
#include "till/Xml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

namespace till {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const XmlLibrary kLibrary;

std::string complaintAbout(const std::string& document) {
  try {
    readInventory(document, "t.xml");
  } catch (const std::runtime_error& problem) {
    return problem.what();
  }
  return "no complaint";
}

TEST(Inventory, GivesTheDevicesInOrder) {
  const Inventory inventory = readInventory(R"(<?xml version="1.0"?>
<till name="T">
  <!-- remark -->
  <device class="UPOS_Scanner" id="S1">
    <field name="ManufacturerName" type="string">Tom &amp; Co</field>
    <field name="GoodScanCount" type="uint32">4294967295</field>
  </device>
  <device class="UPOS_Scale" id="S2" attached="false">
    <field name="ManufacturerName" type="string">OEM</field>
  </device>
</till>)",
                                            "t.xml");
  EXPECT_THAT(inventory.warnings, IsEmpty());
  const std::vector<Device>& devices = inventory.devices();
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_EQ(devices[0].className, "UPOS_Scanner");
  EXPECT_EQ(devices[0].category(), "Scanner");
  EXPECT_EQ(devices[0].id, "S1");
  EXPECT_TRUE(devices[0].attached);
  ASSERT_EQ(devices[0].fields.size(), 2U);
  EXPECT_EQ(devices[0].fields[0].value, "Tom & Co");
  EXPECT_EQ(devices[0].fields[1].type, "uint32");
  EXPECT_FALSE(devices[1].attached);
  EXPECT_EQ(inventory.attachedCount(), 1U);
}

TEST(Inventory, MayBeOfATillWithoutDevices) {
  EXPECT_TRUE(readInventory("<till/>", "t.xml").devices().empty());
}

TEST(Inventory, NamesTheLineOfAMistake) {
  const std::string device = "<till>\n<device class=\"UPOS_Scale\" id=\"S\">\n";
  const std::string end = "</device>\n</till>";
  const struct {
    std::string document;
    const char* complaint;
  } kRows[] = {
      {"", "t.xml:"},
      {"<till>\n<device>\n</till>", "t.xml:3: "},
      {"<shop/>", "t.xml:1: the root element is 'shop', not 'till'"},
      {"<!DOCTYPE till SYSTEM \"till.dtd\">\n<till/>",
       "t.xml:1: a document type declaration is not accepted"},
      {"<till>\n<printer/>\n</till>",
       "t.xml:2: 'printer' has no place in 'till': 'device' is expected"},
      {"<till>\n\n<device id=\"S\"/></till>", "t.xml:3: 'device' needs the attribute 'class'"},
      {"<till><device class=\"UPOS_Scale\"/></till>", "t.xml:1: 'device' needs the attribute 'id'"},
      {"<till><device class=\"UPOS_Scale\" id=\"\"/></till>",
       "t.xml:1: 'device' needs the attribute 'id'"},
      {"<till><device class=\"Scale\" id=\"S\"/></till>",
       "t.xml:1: 'Scale' is not a class such as UPOS_Scanner"},
      {"<till><device class=\"UPOS_\" id=\"S\"/></till>",
       "t.xml:1: 'UPOS_' is not a class such as UPOS_Scanner"},
      {"<till><device class=\"UPOS_Scale\" id=\"S\" attached=\"yes\"/></till>",
       "t.xml:1: attached is 'yes': 'true' or 'false' is expected"},
      {"<till><device class=\"UPOS_Scale\" id=\"S\" port=\"1\"/></till>",
       "t.xml:1: 'device' has no attribute 'port'"},
      {"<till><device class=\"UPOS_Scale\" id=\"S\"/>\n<device class=\"UPOS_Scale\" "
       "id=\"S\"/></till>",
       "t.xml:2: a second device 'S'"},
      {device + "<fild/>\n" + end, "t.xml:3: 'fild' has no place in 'device': 'field' is expected"},
      {device + "<field type=\"string\">x</field>\n" + end,
       "t.xml:3: 'field' needs the attribute 'name'"},
      {device + "<field name=\"a\">x</field>\n" + end,
       "t.xml:3: 'field' needs the attribute 'type'"},
      {device + "<field name=\"DeviceID\" type=\"string\">x</field>\n" + end,
       "t.xml:3: DeviceID is given by the device's attribute 'id'"},
      {device + "<field name=\"a\" type=\"string\"/>\n<field name=\"a\" type=\"string\"/>" + end,
       "t.xml:4: a second field 'a'"},
      {device + "<field name=\"a\" type=\"string\"><b/></field>\n" + end,
       "t.xml:3: a field holds text only"},
  };
  for (const auto& row : kRows) {
    EXPECT_THAT(complaintAbout(row.document), StartsWith(row.complaint)) << row.document;
  }
}

TEST(Inventory, WarnsOfWhatTheServiceCannotUse) {
  const Inventory inventory = readInventory(R"(<till>
<device class="UPOS_Scale" id="S"/>
<device class="UPOS_Scale" id='a"b'>
<field name="ManufacturerName" type="string">ORVEX</field>
<field name="a" type="int">5</field>
<field name="b" type="uint32">4294967296</field>
<field name="c" type="uint64">12,5</field>
<field name="d" type="boolean">TRUE</field>
<field name="e" type="uint64">18446744073709551615</field>
</device></till>)",
                                            "t.xml");
  EXPECT_THAT(
      inventory.warnings,
      ElementsAre("t.xml:2: 'S' has no ManufacturerName: the service discards it",
                  "t.xml:3: no client can fetch 'a\"b' by its path: the service leaves the path's "
                  "escapes as they are",
                  "t.xml:5: type word 'int' is unknown to the service: the value stays a text",
                  "t.xml:6: '4294967296' is not a uint32", "t.xml:7: '12,5' is not a uint64",
                  "t.xml:8: 'TRUE' is not a boolean"));
  EXPECT_EQ(inventory.devices().size(), 2U);
}

TEST(SampleTill, IsARealisticTill) {
  const Inventory inventory = readInventory(readFile(SAMPLES_FOLDER "/till.xml"), "till.xml");
  EXPECT_THAT(inventory.warnings, IsEmpty());
  std::set<std::string> classes;
  std::set<std::string> makers;
  std::set<std::string> types;
  for (const Device& device : inventory.devices()) {
    classes.insert(device.className);
    makers.emplace(device.value("ManufacturerName"));
    for (const Field& field : device.fields) {
      types.insert(field.type);
    }
  }
  EXPECT_GE(inventory.devices().size(), 10U);
  EXPECT_GE(classes.size(), 7U);
  EXPECT_LT(inventory.attachedCount(), inventory.devices().size());
  EXPECT_THAT(makers, testing::IsSupersetOf({"Veltran", "ORVEX", "OEM"}));
  EXPECT_GT(makers.size(), 3U);
  EXPECT_EQ(types, (std::set<std::string>{"string", "uint32", "uint64", "boolean", "ArrayInt32",
                                          "datetime"}));
}

} // namespace
} // namespace till
