#include "RecordedTrace.h"
#include "proxy/CIMContainer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using proxy::CIMContainer;
using proxy::CIMDevice;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

CIMDevice device(const std::string& id, const std::string& className = "Scanner") {
  return CIMDevice(className, id, {{"DeviceID", "string", id}});
}

std::vector<std::string> idsOf(const std::vector<CIMContainer::Reference>& devices) {
  std::vector<std::string> ids;
  for (const auto& stored : devices) {
    ids.push_back(stored->getDeviceId());
  }
  return ids;
}

std::vector<std::string> allIds(const CIMContainer& container) {
  return idsOf(container.getInstances("UPOS_LogicalDevice"));
}

TEST(CIMContainer, IsOneForTheProcess) {
  EXPECT_EQ(&CIMContainer::getInstance(), &CIMContainer::getInstance());
}

TEST(CIMContainer, FindsByIdCaseSensitively) {
  CIMContainer container;
  container.add(device("S1"));
  EXPECT_EQ(container.find(device("S1", "another class"))->getClassName(), "Scanner");
  for (const char* id : {"s1", "S1 ", "S", "", "S12"}) {
    EXPECT_EQ(container.find(device(id)), nullptr) << id;
  }
}

TEST(CIMContainer, AnEmptyIdIsValid) {
  CIMContainer container;
  container.add(device("", "first"));
  container.add(device("", "second"));
  EXPECT_EQ(container.find(device(""))->getClassName(), "first");
  container.remove(device(""));
  EXPECT_THAT(allIds(container), IsEmpty());
}

TEST(CIMContainer, KeepsTheOrderOfAddingThroughRemovalAndReplacement) {
  CIMContainer container;
  for (const char* id : {"d", "b", "c", "a", "e"}) {
    container.add(device(id));
  }
  EXPECT_THAT(allIds(container), ElementsAre("d", "b", "c", "a", "e"));
  container.remove(device("c"));
  container.replace(device("b", "Scale"));
  container.remove(device("d"));
  container.add(device("d"));
  EXPECT_THAT(allIds(container), ElementsAre("b", "a", "e", "d"));
  EXPECT_EQ(container.find(device("b"))->getClassName(), "Scale");
  container.remove(device("b"));
  EXPECT_THAT(allIds(container), ElementsAre("a", "e", "d"));
}

TEST(CIMContainer, AddIgnoresAKnownIdWithoutATraceLine) {
  CIMContainer container;
  recorded_trace::clear();
  container.add(device("S1", "Scanner"));
  container.add(device("S1", "Scale"));
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("Adding CIMDevice: S1"));
  EXPECT_EQ(container.find(device("S1"))->getClassName(), "Scanner");
}

TEST(CIMContainer, StoresACopy) {
  CIMContainer container;
  CIMDevice changing = device("S1");
  container.add(changing);
  changing.addStringField("later", "1");
  EXPECT_EQ(container.find(changing)->fields(), device("S1").fields());
}

TEST(CIMContainer, RemoveTracesOnlyWhatItRemoves) {
  CIMContainer container;
  container.add(device("S1"));
  recorded_trace::clear();
  container.remove(device("S2"));
  EXPECT_THAT(recorded_trace::lines(), IsEmpty());
  container.remove(device("S1"));
  container.remove(device("S1"));
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("Removing CIMDevice: S1"));
  EXPECT_EQ(container.find(device("S1")), nullptr);
}

TEST(CIMContainer, ReplaceOfAnUnknownDeviceDoesNothing) {
  CIMContainer container;
  recorded_trace::clear();
  container.replace(device("S1"));
  EXPECT_THAT(allIds(container), IsEmpty());
}

TEST(CIMContainer, AddAndRemoveTraceBeforeTheChange) {
  CIMContainer container;
  std::vector<std::string> seen;
  recorded_trace::setObserver([&](const std::string& line) {
    seen.push_back(line + (container.find(device("S1")) != nullptr ? ", is there" : ", is not"));
  });
  container.add(device("S1"));
  container.remove(device("S1"));
  recorded_trace::setObserver({});
  EXPECT_THAT(seen,
              ElementsAre("Adding CIMDevice: S1, is not", "Removing CIMDevice: S1, is there"));
}

TEST(CIMContainer, AReadersReferencesStayUnchanged) {
  CIMContainer container;
  container.add(device("S1"));
  container.add(device("S2"));
  const auto held = container.getInstances("UPOS_LogicalDevice");
  CIMDevice changed = *held[0];
  changed.addStringField("DeviceID", "changed");
  container.replace(changed);
  container.remove(device("S2"));
  EXPECT_THAT(idsOf(held), ElementsAre("S1", "S2"));
  EXPECT_EQ(held[0]->fields().at(0)[2], "S1");
  EXPECT_EQ(container.find(changed)->fields().at(0)[2], "changed");
}

TEST(CIMContainer, GetInstancesComparesTheClassCaseSensitively) {
  CIMContainer container;
  container.add(device("1", "Scanner"));
  container.add(device("2", "Scale"));
  container.add(device("3", "UPOS_Scanner"));
  container.add(device("4", "Scanner"));
  EXPECT_THAT(idsOf(container.getInstances("Scanner")), ElementsAre("1", "4"));
  EXPECT_THAT(idsOf(container.getInstances("UPOS_Scanner")), ElementsAre("3"));
  EXPECT_THAT(container.getInstances("scanner"), IsEmpty());
  EXPECT_THAT(container.getInstances("UPOS_Scale"), IsEmpty());
  EXPECT_THAT(container.getInstances(""), IsEmpty());
}

TEST(CIMContainer, SelectReturnsTheDeviceWithTheId) {
  CIMContainer container;
  container.add(device("1", "Scanner"));
  container.add(device("2", "Scale"));
  const auto selected = [&](const char* className, const char* id) {
    const CIMContainer::Reference device = container.select(className, id).device;
    return device != nullptr ? device->getDeviceId() : "none";
  };
  EXPECT_EQ(selected("Scanner", "1"), "1");
  EXPECT_EQ(selected("UPOS_LogicalDevice", "2"), "2");
  EXPECT_EQ(selected("Scanner", "2"), "none");
  EXPECT_EQ(selected("scanner", "1"), "none");
  EXPECT_EQ(selected("UPOS_LogicalDevice", "3"), "none");
}

TEST(CIMContainer, SelectCountsAndTracesAsGetInstances) {
  CIMContainer container;
  const auto expectAsTheList = [&](const char* className) {
    SCOPED_TRACE(className);
    recorded_trace::clear();
    const std::size_t count = container.getInstances(className).size();
    const auto lines = recorded_trace::lines();
    recorded_trace::clear();
    EXPECT_EQ(container.select(className, "2").count, count);
    EXPECT_EQ(recorded_trace::lines(), lines);
  };
  const auto expectAll = [&] {
    for (const char* className : {"UPOS_LogicalDevice", "Scanner", "Scale", ""}) {
      expectAsTheList(className);
    }
  };
  expectAll();
  container.add(device("1", "Scanner"));
  container.add(device("2", "Scale"));
  expectAll();
  container.add(device("3", "UPOS_LogicalDevice"));
  container.add(device("4", "UPOS_LogicalDevice"));
  container.add(device("4", "UPOS_LogicalDevice"));
  expectAll();
  container.remove(device("3"));
  expectAll();
  container.remove(device("4"));
  container.remove(device("4"));
  expectAll();
}

TEST(CIMContainer, TheLogicalDeviceYieldsAllAndTracesOnlyItsOwn) {
  CIMContainer container;
  container.add(device("1", "Scanner"));
  container.add(device("2", "UPOS_LogicalDevice"));
  container.add(device("3", "Scale"));
  recorded_trace::clear();
  EXPECT_THAT(allIds(container), ElementsAre("1", "2", "3"));
  EXPECT_THAT(idsOf(container.getInstances("Scale")), ElementsAre("3"));
  EXPECT_THAT(container.getInstances("UPOS_logicaldevice"), IsEmpty());
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("CIMContainer::getInstances(UPOS_LogicalDevice)",
                          "CIMContainer::adding instance (id=2)",
                          "CIMContainer::getInstances(Scale)",
                          "CIMContainer::adding instance (id=3)",
                          "CIMContainer::getInstances(UPOS_logicaldevice)"));
}

} // namespace
