#include "CountedAllocations.h"
#include "RecordedTrace.h"
#include "model/IUPOSXmlAdapter.h"
#include "strategy/StrategyFactory.h"
#include "strategy/UPOSAdapter.h"
#include "trace/PrintfFormat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>

using com::orvex::UPOSAdapter;
using model::DeviceEvent;
using model::Field;
using model::Fields;
using model::Instance;
using model::InstanceList;
using test_support::countedAllocations;
using testing::ElementsAre;
using trace::formatPrintf;
using trace::TraceArgument;

namespace {

/// The behaviour of a test's XML adapters, and their recorded calls.
struct Script {
  std::uint32_t toXmlStatus = 0;
  std::string request = "<request/>";
  std::string response = "<response/>";
  std::uint32_t fromXmlStatus = 0;
  InstanceList instances;
  bool sendingThrows = false;

  std::vector<std::string> calls;
  int alive = 0;
};
Script script;

class ScriptedXmlAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  ScriptedXmlAdapter() { ++script.alive; }
  ~ScriptedXmlAdapter() override { --script.alive; }
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override {
    script.calls.push_back("toXML(" + className + "," + type + "," + cmd + "," + id + ")");
    out = script.request;
    return script.toXmlStatus;
  }
  std::uint32_t fromXML(std::string response) override {
    script.calls.push_back("fromXML(" + response + ")");
    return script.fromXmlStatus;
  }
  std::string sendRequest(std::string request) override {
    script.calls.push_back("sendRequest(" + request + ")");
    if (script.sendingThrows) {
      throw std::runtime_error("sending");
    }
    return script.response;
  }
  InstanceList getInstances() override {
    script.calls.emplace_back("getInstances()");
    return script.instances;
  }
  DeviceEvent fromXMLEvent(std::string) override { return {}; }
};

class ScriptedFactory : public com::orvex::StrategyFactory {
public:
  com::orvex::IUPOSXmlAdapter* createXmlAdapter() override { return new ScriptedXmlAdapter; }
  com::orvex::CommunicationLayer* createCommunicationLayer() override { return nullptr; }
};

ScriptedFactory scriptedFactory;
com::orvex::StrategyFactory* factory = &scriptedFactory;

} // namespace

// Replaces the product's.
com::orvex::StrategyFactory* com::orvex::getStrategyFactory() {
  return factory;
}

namespace {

Field field(const std::string& name) {
  return {name, name + ".type", name + ".value"};
}

class UPOSAdapterTest : public testing::Test {
protected:
  void SetUp() override {
    script = Script();
    factory = &scriptedFactory;
    recorded_trace::clear();
  }
  void TearDown() override { EXPECT_EQ(script.alive, 0); }

  /// An adapter that has read `instances`.
  static std::unique_ptr<UPOSAdapter> adapterWith(InstanceList instances) {
    script.instances = std::move(instances);
    auto adapter = std::make_unique<UPOSAdapter>();
    std::uint32_t status = 1;
    adapter->enumerateInstances("UPOS_Scanner", &status);
    EXPECT_EQ(status, 0U);
    return adapter;
  }

  static std::string item(UPOSAdapter& adapter, std::int32_t instance, std::int32_t property,
                          std::int32_t number) {
    std::string text = "untouched";
    adapter.getPropertyItem(&text, instance, property, number);
    return text;
  }
};

const InstanceList kThree = {
    {field("a0")}, {field("b0"), field("b1")}, {field("c0"), field("c1"), field("c2")}};

TEST_F(UPOSAdapterTest, TracesItsAddressOnConstructionAndDestruction) {
  std::string address;
  {
    const UPOSAdapter adapter;
    address = formatPrintf("%p", {TraceArgument(static_cast<const void*>(&adapter))});
    EXPECT_EQ(adapter.getInstanceCount(), 0);
  }
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("<<UPOSAdapter(" + address + ") created",
                                                   "<<UPOSAdapter(" + address + ") destroyed"));
}

TEST_F(UPOSAdapterTest, AnEnumerationSendsAnEmptyIdAndTracesEachStep) {
  script.instances = kThree;
  UPOSAdapter adapter;
  recorded_trace::clear();
  std::uint32_t status = 7;
  adapter.enumerateInstances("UPOS_Scale", &status);
  EXPECT_EQ(status, 0U);
  EXPECT_EQ(adapter.getInstanceCount(), 3);
  EXPECT_THAT(script.calls,
              ElementsAre("toXML(UPOS_Scale,request,enumerateInstances,)",
                          "sendRequest(<request/>)", "fromXML(<response/>)", "getInstances()"));
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre(
          "<<UPOSAdapter::enumerateInstances>>: xml->toXML(UPOS_Scale, REQUEST, ENUMERATE, ...)",
          // Kept: labelled as the class.
          "<<UPOSAdapter::enumerateInstances>>: Invoking request to Java code - class "
          "'<request/>'",
          "<<Request>>: '<request/>'",
          "<<UPOSAdapter::enumerateInstances>>: got response, converting from XML - class "
          "'<request/>'",
          "<<UPOSAdapter::enumerateInstances>>: answer: '<response/>'",
          "<<UPOSAdapter::enumerateInstances>>: after fromXML - answer: '<response/>'",
          "<<UPOSAdapter::enumerateInstances>>: calling xml->getInstances()",
          "<<UPOSAdapter::enumerateInstances>>: xml->getInstances() returned",
          "<<UPOSAdapter::enumerateInstances>>: Returning request"));
}

TEST_F(UPOSAdapterTest, AFailedEnumerationKeepsThePreviousInstances) {
  const auto adapter = adapterWith(kThree);
  script.instances = {{field("new")}};
  for (const std::uint32_t failure : {1U, 0xFFFFFFFFU}) {
    script.fromXmlStatus = failure;
    script.calls.clear();
    recorded_trace::clear();
    std::uint32_t status = 0;
    adapter->enumerateInstances("UPOS_Scanner", &status);
    EXPECT_EQ(status, failure);
    EXPECT_EQ(adapter->getInstanceCount(), 3);
    EXPECT_EQ(script.calls.back(), "fromXML(<response/>)");
    const auto lines = recorded_trace::lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[5],
              "<<UPOSAdapter::enumerateInstances>>: after fromXML - answer: '<response/>'");
    EXPECT_EQ(lines[6], "<<UPOSAdapter::enumerateInstances>>: Returning request");
  }
}

TEST_F(UPOSAdapterTest, ADeviceServerThatIsDownGivesAnEmptyAnswer) {
  script.response = "";
  script.fromXmlStatus = 0xFFFFFFFF;
  UPOSAdapter adapter;
  std::uint32_t status = 0;
  adapter.enumerateInstances("UPOS_Scanner", &status);
  EXPECT_EQ(status, 0xFFFFFFFFU);
  EXPECT_EQ(adapter.getInstanceCount(), 0);
  EXPECT_THAT(script.calls, testing::Contains("fromXML()"));
  EXPECT_THAT(recorded_trace::lines(),
              testing::IsSupersetOf({"<<Request>>: '<request/>'",
                                     "<<UPOSAdapter::enumerateInstances>>: answer: ''"}));
}

TEST_F(UPOSAdapterTest, TheStatusOfBuildingIsIgnored) {
  script.toXmlStatus = 5;
  script.request = "";
  UPOSAdapter adapter;
  std::uint32_t status = 7;
  adapter.enumerateInstances("UPOS_Scanner", &status);
  EXPECT_EQ(status, 0U);
  EXPECT_THAT(script.calls, testing::Contains("sendRequest()"));
}

TEST_F(UPOSAdapterTest, ALookupCarriesTheKeyAsTheId) {
  script.instances = {{field("a0")}};
  UPOSAdapter adapter;
  recorded_trace::clear();
  adapter.getInstance("UPOS_Scale", "SCALE1");
  EXPECT_EQ(adapter.getInstanceCount(), 1);
  EXPECT_THAT(script.calls,
              ElementsAre("toXML(UPOS_Scale,request,getInstance,SCALE1)", "sendRequest(<request/>)",
                          "fromXML(<response/>)", "getInstances()"));
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("<<UPOSAdapter::getInstance>>: Invoking request",
                          "<<Request>>: <request/>", "Answer: '<response/>'"));
}

TEST_F(UPOSAdapterTest, ALookupTakesTheInstancesWhateverTheStatus) {
  const auto adapter = adapterWith(kThree);
  script.instances = {{field("partial")}};
  script.fromXmlStatus = 1;
  adapter->getInstance("UPOS_Scale", "SCALE1");
  EXPECT_EQ(adapter->getInstanceCount(), 1);
  EXPECT_EQ(item(*adapter, 0, 0, 0), "partial");
  script.instances = {};
  script.fromXmlStatus = 0xFFFFFFFF;
  adapter->getInstance("UPOS_Scale", "SCALE1");
  EXPECT_EQ(adapter->getInstanceCount(), 0);
}

TEST_F(UPOSAdapterTest, PercentSignsOfAPeerAreTracedUnchanged) {
  script.response = "%s%n%d";
  UPOSAdapter adapter;
  recorded_trace::clear();
  adapter.getInstance("UPOS_Scale", "%n");
  EXPECT_EQ(recorded_trace::lines().back(), "Answer: '%s%n%d'");
}

TEST_F(UPOSAdapterTest, WithoutAFactoryAnEnumerationFailsAndALookupIsEmpty) {
  const auto adapter = adapterWith(kThree);
  factory = nullptr;
  std::uint32_t status = 0;
  adapter->enumerateInstances("UPOS_Scanner", &status);
  EXPECT_NE(status, 0U);
  EXPECT_EQ(adapter->getInstanceCount(), 3);
  adapter->getInstance("UPOS_Scanner", "SCANNER1");
  EXPECT_EQ(adapter->getInstanceCount(), 0);
}

TEST_F(UPOSAdapterTest, AnExceptionPassesAndReleasesTheXmlAdapter) {
  const auto adapter = adapterWith(kThree);
  script.sendingThrows = true;
  std::uint32_t status = 0;
  EXPECT_THROW(adapter->enumerateInstances("UPOS_Scanner", &status), std::runtime_error);
  EXPECT_EQ(script.alive, 0);
  EXPECT_THROW(adapter->getInstance("UPOS_Scanner", "SCANNER1"), std::runtime_error);
  EXPECT_EQ(script.alive, 0);
  EXPECT_EQ(adapter->getInstanceCount(), 3);
}

TEST_F(UPOSAdapterTest, SelectingReturnsTheNumberOfProperties) {
  const auto adapter = adapterWith(kThree);
  EXPECT_EQ(adapter->getInstanceCount(), 3);
  EXPECT_EQ(adapter->selectInstance(0), 1);
  EXPECT_EQ(adapter->selectInstance(2), 3);
  EXPECT_EQ(adapter->selectInstance(2), 3);
  EXPECT_EQ(adapter->selectInstance(1), 2);
}

TEST_F(UPOSAdapterTest, SelectingAMissingInstanceReturnsZero) {
  const auto adapter = adapterWith(kThree);
  EXPECT_EQ(adapter->selectInstance(3), 0);
  EXPECT_EQ(adapter->selectInstance(2147483647), 0);
  EXPECT_EQ(adapter->selectInstance(-1), 0);
  EXPECT_EQ(UPOSAdapter().selectInstance(0), 0);
}

TEST_F(UPOSAdapterTest, EachItemOfEachPropertyIsReadByItsIndices) {
  const auto adapter = adapterWith(kThree);
  EXPECT_EQ(item(*adapter, 2, 1, 0), "c1");
  EXPECT_EQ(item(*adapter, 2, 1, 1), "c1.type");
  EXPECT_EQ(item(*adapter, 2, 1, 2), "c1.value");
  EXPECT_EQ(item(*adapter, 1, 1, 2), "b1.value");
  EXPECT_EQ(item(*adapter, 0, 0, 0), "a0");
  EXPECT_EQ(item(*adapter, 2, 2, 0), "c2");
}

TEST_F(UPOSAdapterTest, AnIndexOutOfRangeGivesTheFirstStringOfTheLastProperty) {
  struct Row {
    const char* label;
    std::int32_t instance, property, item;
    const char* expected;
  };
  const Row rows[] = {
      {"instance equal to the size", 3, 0, 0, "b1"},
      {"instance above the size", 4, 0, 0, "b1"},
      {"negative instance", -1, 0, 0, "b1"},
      {"property equal to the size", 2, 3, 0, "b1"},
      {"property above the size", 2, 4, 0, "b1"},
      {"negative property", 2, -1, 0, "b1"},
      {"item equal to the size: the property asked for is current by then", 2, 1, 3, "c1"},
      {"item above the size", 2, 1, 4, "c1"},
      {"negative item", 2, 1, -1, "c1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    const auto adapter = adapterWith(kThree);
    EXPECT_EQ(item(*adapter, 1, 1, 2), "b1.value");
    EXPECT_EQ(item(*adapter, row.instance, row.property, row.item), row.expected);
  }
}

TEST_F(UPOSAdapterTest, WithoutAnyPropertyReadTheFallbackIsEmpty) {
  UPOSAdapter nothing;
  EXPECT_EQ(item(nothing, 0, 0, 0), "");
  const auto adapter = adapterWith({{}, {Field{}}});
  EXPECT_EQ(item(*adapter, 0, 0, 0), "");
  EXPECT_EQ(item(*adapter, 1, 0, 0), "");
}

TEST_F(UPOSAdapterTest, TheFallbackSurvivesANewRequestButTheSelectionDoesNot) {
  const auto adapter = adapterWith(kThree);
  EXPECT_EQ(item(*adapter, 1, 1, 0), "b1");
  script.instances = {{field("d0")}, {field("e0"), field("e1")}};
  adapter->getInstance("UPOS_Scanner", "E");
  EXPECT_EQ(item(*adapter, 2, 0, 0), "b1");
  EXPECT_EQ(item(*adapter, 1, 1, 0), "e1");
}

TEST_F(UPOSAdapterTest, ReadingAPropertyCopiesNothingButTheStringAskedFor) {
  const auto adapter =
      adapterWith({Instance(Fields(1000, field("a property whose name is on the heap")))});
  std::string out(100, ' '); // with storage for any of them
  const int before = countedAllocations();
  ASSERT_GT(before, 1000); // allocations are counted
  ASSERT_EQ(adapter->selectInstance(0), 1000);
  for (std::int32_t i = 0; i < 1000; ++i) {
    for (std::int32_t number = 0; number < 3; ++number) {
      adapter->getPropertyItem(&out, 0, i, number);
    }
  }
  EXPECT_EQ(countedAllocations(), before);
}

TEST_F(UPOSAdapterTest, AnInstanceOfManyPropertiesIsReadInLinearTime) {
  constexpr std::int32_t kProperties = 20000;
  Fields wide;
  for (std::int32_t i = 0; i < kProperties; ++i) {
    wide.push_back(field("a property whose name is on the heap " + std::to_string(i)));
  }
  const auto adapter = adapterWith({Instance(wide)});
  ASSERT_EQ(adapter->selectInstance(0), kProperties);
  for (std::int32_t i = 0; i < kProperties; ++i) {
    for (std::int32_t number = 0; number < 3; ++number) {
      ASSERT_EQ(item(*adapter, 0, i, number),
                wide[static_cast<std::size_t>(i)][static_cast<std::size_t>(number)]);
    }
  }
}

} // namespace
