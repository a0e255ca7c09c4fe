#include "RecordedTrace.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/testing/FailingMemory.h"
#include "xml/testing/UnreadableDocuments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using model::InstanceList;
using xml_testing::repeated;
using xml_testing::UnreadableDocument;
using xml_testing::unreadableDocuments;

namespace {

using Lines = std::vector<std::string>;

constexpr std::uint32_t kUnreadable = 0xFFFFFFFF;

std::string field(const std::string& name, const std::string& value,
                  const std::string& type = "string") {
  return "<field name=\"" + name + "\" type=\"" + type + "\">" + value + "</field>";
}

std::string instance(const std::string& className, const std::string& fields) {
  return "<instance name=\"" + className + "\">" + fields + "</instance>";
}

std::string response(const std::string& content) {
  return "<response>" + content + "</response>";
}

std::string lengths(const char* element, std::size_t count) {
  return std::string("<<UPOSXMLAdapter>> instanceList(") + element +
         ") length: " + std::to_string(count);
}

std::string fieldLine(int number, const std::string& name, const std::string& value, int add,
                      const std::string& type = "string") {
  std::string line = "<<UPOSXMLAdapter>> field ";
  line += std::to_string(number);
  return line + " name='" + name + "', type='" + type + "', value='" + value + "', dev='" + value +
         "' add=" + std::to_string(add);
}

const std::string kDiscarded = "<<fromXML>> Discarding NON-ORVEX device";

class FromXml : public testing::Test {
protected:
  void SetUp() override { recorded_trace::clear(); }

  /// True when an instance of that class and manufacturer is kept.
  static bool keeps(const std::string& className, const std::string& manufacturer,
                    const std::string& name = "ManufacturerName") {
    UPOSXMLAdapter adapter;
    EXPECT_EQ(adapter.fromXML(response(instance(className, field(name, manufacturer)))), 0U);
    return adapter.getInstances().size() == 1;
  }

  UPOSXMLAdapter adapter_;
};

TEST_F(FromXml, AFreshAdapterHasNoInstances) {
  EXPECT_EQ(adapter_.getInstances(), InstanceList{});
}

TEST_F(FromXml, ReadsADeviceWithItsFieldsInOrder) {
  EXPECT_EQ(
      adapter_.fromXML(response(instance("UPOS_Scanner", field("DeviceID", "SCANNER1") +
                                                             field("ManufacturerName", "Veltran") +
                                                             field("Hours", "12", "uint32")))),
      0U);
  EXPECT_EQ(adapter_.getInstances(), (InstanceList{{{"DeviceID", "string", "SCANNER1"},
                                                    {"ManufacturerName", "string", "Veltran"},
                                                    {"Hours", "uint32", "12"}}}));
  EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 1),
                                            fieldLine(0, "DeviceID", "SCANNER1", 0),
                                            fieldLine(1, "ManufacturerName", "Veltran", 1),
                                            fieldLine(2, "Hours", "12", 1, "uint32")}));
}

TEST_F(FromXml, GetInstancesReturnsACopy) {
  adapter_.fromXML(response(instance("UPOS_Scale", field("ManufacturerName", "ORVEX"))));
  adapter_.getInstances().clear();
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
}

TEST_F(FromXml, AnErrorAnswerReturnsOneAndAddsNothing) {
  const std::string kept = instance("UPOS_Scanner", field("ManufacturerName", "ORVEX"));
  const std::vector<std::pair<std::string, std::size_t>> rows = {
      {response("<error name=\"no such class\"/>"), 1},
      {response("<error/>" + kept), 1},
      {response(kept + "<error name='late'/>"), 1},
      {response("<a><b><error/></b></a>" + kept + "<error/>"), 2},
      {"<error name='root'>" + kept + "</error>", 1},
  };
  for (const auto& [document, count] : rows) {
    SCOPED_TRACE(document);
    recorded_trace::clear();
    EXPECT_EQ(adapter_.fromXML(document), 1U);
    EXPECT_EQ(adapter_.getInstances(), InstanceList{});
    EXPECT_EQ(recorded_trace::lines(), Lines{lengths("error", count)});
  }
}

TEST_F(FromXml, ElementNamesAreCaseSensitive) {
  EXPECT_EQ(adapter_.fromXML(response("<Error/><INSTANCE name='UPOS_Scanner'/>")), 0U);
  EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 0)}));
}

TEST_F(FromXml, AnAnswerWithoutInstancesReturnsZero) {
  for (const std::string document : {"<response/>", "<anything><field name='x'/></anything>"}) {
    recorded_trace::clear();
    EXPECT_EQ(adapter_.fromXML(document), 0U);
    EXPECT_EQ(adapter_.getInstances(), InstanceList{});
    EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 0)}));
  }
}

TEST_F(FromXml, TheRootMayBeAnInstanceItself) {
  EXPECT_EQ(adapter_.fromXML(instance("UPOS_Scale", field("ManufacturerName", "OEM"))), 0U);
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
}

// By design: a discarded device's fields stay pending and are put in front of those of the next
// kept device.
TEST_F(FromXml, AKeptDeviceBeginsWithTheFieldsOfTheDiscardedOnesBeforeIt) {
  EXPECT_EQ(adapter_.fromXML(response(
                instance("UPOS_Scanner",
                         field("DeviceID", "OTHER1") + field("ManufacturerName", "Somebody")) +
                instance("UPOS_Scanner",
                         field("DeviceID", "SCANNER1") + field("ManufacturerName", "Veltran")))),
            0U);
  EXPECT_EQ(adapter_.getInstances(), (InstanceList{{{"DeviceID", "string", "OTHER1"},
                                                    {"ManufacturerName", "string", "Somebody"},
                                                    {"DeviceID", "string", "SCANNER1"},
                                                    {"ManufacturerName", "string", "Veltran"}}}));
  EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 2),
                                            fieldLine(0, "DeviceID", "OTHER1", 0),
                                            fieldLine(1, "ManufacturerName", "Somebody", 0),
                                            kDiscarded, fieldLine(0, "DeviceID", "SCANNER1", 0),
                                            fieldLine(1, "ManufacturerName", "Veltran", 1)}));
}

TEST_F(FromXml, PendingFieldsAddUpAndAreGoneAfterTheKeptDevice) {
  adapter_.fromXML(response(instance("UPOS_Scale", field("A", "1")) +
                            instance("UPOS_Scale", field("B", "2")) +
                            instance("UPOS_Scale", field("ManufacturerName", "ORVEX")) +
                            instance("UPOS_Scale", field("ManufacturerName", "Veltran")) +
                            instance("UPOS_Scale", field("C", "3"))));
  EXPECT_EQ(adapter_.getInstances(), (InstanceList{{{"A", "string", "1"},
                                                    {"B", "string", "2"},
                                                    {"ManufacturerName", "string", "ORVEX"}},
                                                   {{"ManufacturerName", "string", "Veltran"}}}));
}

TEST_F(FromXml, ALaterAnswerIsAddedToTheListAndToThePendingFields) {
  adapter_.fromXML(response(instance("UPOS_Scale", field("ManufacturerName", "ORVEX")) +
                            instance("UPOS_Scale", field("A", "1"))));
  adapter_.fromXML(response(instance("UPOS_Scale", field("ManufacturerName", "Veltran"))));
  EXPECT_EQ(adapter_.getInstances(),
            (InstanceList{{{"ManufacturerName", "string", "ORVEX"}},
                          {{"A", "string", "1"}, {"ManufacturerName", "string", "Veltran"}}}));
}

TEST_F(FromXml, KeepsByManufacturerAndClass) {
  struct Row {
    const char* className;
    const char* manufacturer;
    bool kept;
  };
  const std::vector<Row> rows = {
      {"UPOS_Scanner", "Veltran", true},
      {"UPOS_LogicalDevice", "Veltran", true},
      {"UPOS_LogicalDevice", "ORVEX", true},
      {"", "ORVEX", true},
      {"UPOS_Scanner", "OEM", true},
      {"UPOS_Scale", "OEM", true},
      {"My_UPOS_Scanner_2", "OEM", true},
      {"xUPOS_Scalex", "OEM", true},
      {"UPOS_LogicalDevice", "OEM", false},
      {"Scanner", "OEM", false},
      {"Scale", "OEM", false},
      {"upos_scanner", "OEM", false},
      {"UPOS_SCALE", "OEM", false},
      {"", "OEM", false},
      {"UPOS_Scanner", "veltran", false},
      {"UPOS_Scanner", "VELTRAN", false},
      {"UPOS_Scanner", "orvex", false},
      {"UPOS_Scanner", "oem", false},
      {"UPOS_Scanner", " ORVEX", false},
      {"UPOS_Scanner", "ORVEX ", false},
      {"UPOS_Scanner", "ORVEX Ltd", false},
      {"UPOS_Scanner", "Somebody", false},
      {"UPOS_Scanner", "", false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(keeps(row.className, row.manufacturer), row.kept)
        << row.className << " of " << row.manufacturer;
  }
}

TEST_F(FromXml, TheManufacturerFieldsNameIgnoresCase) {
  for (const char* name : {"manufacturername", "MANUFACTURERNAME", "mANUFACTURERnAME"}) {
    EXPECT_TRUE(keeps("UPOS_Scanner", "Veltran", name)) << name;
  }
  for (const char* name : {"Manufacturer", "ManufacturerName2", "Manufacturer Name", " x", ""}) {
    EXPECT_FALSE(keeps("UPOS_Scanner", "Veltran", name)) << name;
  }
}

TEST_F(FromXml, OnceKeptALaterManufacturerDoesNotDiscard) {
  adapter_.fromXML(response(instance("UPOS_Scanner", field("ManufacturerName", "Somebody") +
                                                         field("ManufacturerName", "ORVEX") +
                                                         field("ManufacturerName", "Somebody"))));
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
  EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 1),
                                            fieldLine(0, "ManufacturerName", "Somebody", 0),
                                            fieldLine(1, "ManufacturerName", "ORVEX", 1),
                                            fieldLine(2, "ManufacturerName", "Somebody", 1)}));
}

TEST_F(FromXml, TheClassOfOneInstanceDoesNotAffectTheNext) {
  adapter_.fromXML(response(instance("UPOS_Scanner", field("ManufacturerName", "OEM")) +
                            instance("UPOS_LogicalDevice", field("ManufacturerName", "OEM"))));
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
}

TEST_F(FromXml, AnInstanceWithoutManufacturerOrFieldsIsDiscarded) {
  EXPECT_EQ(adapter_.fromXML(response("<instance/>" + instance("UPOS_Scanner", "") +
                                      instance("UPOS_Scanner", field("DeviceID", "S")))),
            0U);
  EXPECT_EQ(adapter_.getInstances(), InstanceList{});
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{lengths("error", 0), lengths("instance", 3), kDiscarded, kDiscarded,
                   fieldLine(0, "DeviceID", "S", 0), kDiscarded}));
}

TEST_F(FromXml, MissingAttributesAreEmpty) {
  adapter_.fromXML(response("<instance><field>x</field><field name='ManufacturerName'>ORVEX</field>"
                            "</instance>"));
  EXPECT_EQ(adapter_.getInstances(),
            (InstanceList{{{"", "", "x"}, {"ManufacturerName", "", "ORVEX"}}}));
}

TEST_F(FromXml, TypeWordsAreCarriedUnchecked) {
  adapter_.fromXML(response(instance("UPOS_Scale", field("ManufacturerName", "ORVEX", "nonsense") +
                                                       field("A", "x", "end"))));
  EXPECT_EQ(adapter_.getInstances(),
            (InstanceList{{{"ManufacturerName", "nonsense", "ORVEX"}, {"A", "end", "x"}}}));
}

TEST_F(FromXml, FieldsAndInstancesAreFoundAtAnyDepth) {
  adapter_.fromXML(response("<group>" +
                            instance("UPOS_Scanner", "<part>" + field("A", "1") + "</part>" +
                                                         field("ManufacturerName", "ORVEX")) +
                            "</group>"));
  EXPECT_EQ(adapter_.getInstances(),
            (InstanceList{{{"A", "string", "1"}, {"ManufacturerName", "string", "ORVEX"}}}));
}

TEST_F(FromXml, ANestedInstancesFieldsBelongToBoth) {
  adapter_.fromXML(response(
      instance("UPOS_Scanner",
               field("A", "1") + instance("UPOS_Scale", field("ManufacturerName", "ORVEX")))));
  EXPECT_EQ(adapter_.getInstances(),
            (InstanceList{{{"A", "string", "1"}, {"ManufacturerName", "string", "ORVEX"}},
                          {{"ManufacturerName", "string", "ORVEX"}}}));
}

TEST_F(FromXml, FieldsNestedInFieldsAreFieldsToo) {
  const std::string inner = field("ManufacturerName", "ORVEX");
  adapter_.fromXML(response(instance("UPOS_Scanner", field("Outer", "a" + inner + "b"))));
  EXPECT_EQ(adapter_.getInstances(), (InstanceList{{{"Outer", "string", "aORVEXb"},
                                                    {"ManufacturerName", "string", "ORVEX"}}}));
}

TEST_F(FromXml, ValuesMayHoldEntitiesCdataAndComments) {
  adapter_.fromXML(response(
      instance("UPOS_Scanner", field("ManufacturerName", "OR<!-- not this -->VEX") +
                                   field("A", "&lt;a&gt; &amp;<![CDATA[ <b> & ]]>&#33;"))));
  EXPECT_EQ(adapter_.getInstances(), (InstanceList{{{"ManufacturerName", "string", "ORVEX"},
                                                    {"A", "string", "<a> & <b> & !"}}}));
}

TEST_F(FromXml, PercentSignsInFieldsAreTracedAsTheyAre) {
  adapter_.fromXML(response(instance("UPOS_Scanner", field("%s", "%n%%", "%d"))));
  EXPECT_EQ(recorded_trace::lines(), (Lines{lengths("error", 0), lengths("instance", 1),
                                            fieldLine(0, "%s", "%n%%", 0, "%d"), kDiscarded}));
}

TEST_F(FromXml, ReadsUpToTheFirstZeroByte) {
  const std::string document =
      response(instance("UPOS_Scanner", field("ManufacturerName", "ORVEX")));
  EXPECT_EQ(adapter_.fromXML(document + std::string("\0<error/>", 9)), 0U);
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
}

TEST_F(FromXml, NothingComesFromAnUnreadableDocument) {
  for (const UnreadableDocument& document : unreadableDocuments()) {
    SCOPED_TRACE(document.label);
    recorded_trace::clear();
    EXPECT_EQ(adapter_.fromXML(document.text), kUnreadable);
    EXPECT_EQ(adapter_.getInstances(), InstanceList{});
    const Lines lines = recorded_trace::lines();
    ASSERT_EQ(lines.size(), 2U) << testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "<<XMLAdapter XML Exception >> : ");
    EXPECT_THAT(lines[1], testing::HasSubstr(" (line "));
  }
}

TEST_F(FromXml, AnUnreadableDocumentLeavesWhatWasReadBefore) {
  const std::string good = response(instance("UPOS_Scanner", field("ManufacturerName", "ORVEX")));
  adapter_.fromXML(good);
  EXPECT_EQ(adapter_.fromXML(good.substr(0, good.size() - 1)), kUnreadable);
  EXPECT_EQ(adapter_.getInstances().size(), 1U);
}

std::string answerOf(std::size_t devices) {
  return response(
      repeated(devices, instance("UPOS_Scanner", repeated(7, field("A", "a value")) +
                                                     field("ManufacturerName", "OEM"))));
}

TEST_F(FromXml, ADeviceCostsNoMoreAllocationsInALargeAnswerThanInASmallOne) {
  recorded_trace::setSwitchedOn(false);
  const auto allocationsOf = [](std::size_t devices) {
    const std::string document = answerOf(devices);
    const std::size_t before = failing_memory::allocations();
    UPOSXMLAdapter adapter;
    adapter.fromXML(document);
    EXPECT_EQ(adapter.getInstances().size(), devices);
    return failing_memory::allocations() - before;
  };
  const std::size_t few = allocationsOf(100);
  const std::size_t many = allocationsOf(1000);
  recorded_trace::setSwitchedOn(true);
  EXPECT_GT(few, 100U); // allocations are counted
  EXPECT_LE(many, 10 * few);
}

TEST_F(FromXml, TheFieldsOfDiscardedDevicesAreNotCopiedForEachFurtherDevice) {
  recorded_trace::setSwitchedOn(false);
  const auto allocationsOf = [](std::size_t devices) {
    const std::string document =
        response(repeated(devices, instance("UPOS_Scanner", repeated(3, field("A", "a value")))));
    const std::size_t before = failing_memory::allocations();
    UPOSXMLAdapter adapter;
    EXPECT_EQ(adapter.fromXML(document), 0U);
    return failing_memory::allocations() - before;
  };
  const std::size_t few = allocationsOf(100);
  const std::size_t many = allocationsOf(1000);
  recorded_trace::setSwitchedOn(true);
  EXPECT_LT(many - few, 100U); // lists that double, and nothing for each device
}

TEST_F(FromXml, EachLineTestsTheTracesSwitch) {
  const std::string document = answerOf(10);
  const std::size_t linesBefore = recorded_trace::lines().size();
  UPOSXMLAdapter().fromXML(document);
  const std::size_t lines = recorded_trace::lines().size() - linesBefore;
  EXPECT_EQ(lines, 2U + 10U * 8U);
  recorded_trace::setSwitchedOn(false);
  const int before = recorded_trace::timesAsked();
  UPOSXMLAdapter().fromXML(document);
  const int asked = recorded_trace::timesAsked() - before;
  recorded_trace::setSwitchedOn(true);
  EXPECT_EQ(asked, static_cast<int>(lines));
}

} // namespace
