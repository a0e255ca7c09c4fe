#include "RecordedTrace.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/testing/CacheModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

using model::DeviceEvent;
using model::Fields;
using model::Instance;
using proxy::CIMContainer;
using proxy::CIMDevice;
using proxy::CIMDeviceUtil;
using proxy_testing::CacheModel;
using proxy_testing::seen;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

DeviceEvent event(const std::string& type, const std::string& id, const std::string& provider,
                  const std::string& code = "", const Fields& fields = {}) {
  DeviceEvent made;
  made.deviceId = id;
  made.type = type;
  made.className = "Scanner";
  made.modifyInstanceCode = code;
  made.provider = provider;
  made.fields = fields;
  return made;
}

class CIMDeviceUtilTest : public testing::Test {
protected:
  std::string process(const DeviceEvent& event) {
    return CIMDeviceUtil::processEvent(event, container_).type;
  }
  CIMContainer::Reference cached(const std::string& id) const {
    return container_.find(CIMDevice("", id, {}));
  }

  CIMContainer container_;
};

TEST_F(CIMDeviceUtilTest, FirstAddIsPublishedAndStored) {
  EXPECT_EQ(process(event("addInstance", "S1", "UPOS_Scanner", "", {{"a", "string", "1"}})),
            "addInstance");
  ASSERT_NE(cached("S1"), nullptr);
  EXPECT_EQ(cached("S1")->getClassName(), "Scanner");
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("UPOS_Scanner"));
  EXPECT_EQ(cached("S1")->fields().at(0)[2], "1");
}

TEST_F(CIMDeviceUtilTest, SecondAddListsTheClassTwiceAndMergesUnpublished) {
  process(event("addInstance", "S1", "UPOS_Scanner", "", {{"a", "string", "1"}}));
  EXPECT_EQ(process(event("addInstance", "S1", "UPOS_Scanner", "1", {{"b", "uint32", "2"}})), "NA");
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("UPOS_Scanner", "UPOS_Scanner"));
  EXPECT_EQ(cached("S1")->fields().size(), 2U);
  EXPECT_EQ(container_.getInstances("UPOS_LogicalDevice").size(), 1U);
}

TEST_F(CIMDeviceUtilTest, AddOfAKnownDeviceKeepsItsClassName) {
  process(event("addInstance", "S1", "UPOS_Scanner"));
  DeviceEvent second = event("addInstance", "S1", "UPOS_Hybrid");
  second.className = "Hybrid";
  process(second);
  EXPECT_EQ(cached("S1")->getClassName(), "Scanner");
}

TEST_F(CIMDeviceUtilTest, ModificationWithACodeIsPublished) {
  process(event("addInstance", "S1", "P", "", {{"a", "string", "1"}, {"b", "string", "1"}}));
  for (const char* code : {"1", "0", "  ", "NA", "\t"}) {
    EXPECT_EQ(process(event("modifyInstance", "S1", "P", code, {{"a", "string", code}})),
              "modifyInstance");
    EXPECT_EQ(cached("S1")->fields().at(0)[2], code);
  }
  EXPECT_EQ(cached("S1")->fields().at(1)[2], "1");
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("P"));
}

TEST_F(CIMDeviceUtilTest, ModificationWithoutACodeIsAppliedUnpublished) {
  process(event("addInstance", "S1", "P"));
  for (const char* code : {"", " "}) {
    EXPECT_EQ(process(event("modifyInstance", "S1", "P", code, {{"a", "string", code}})), "NA");
    EXPECT_EQ(cached("S1")->fields().at(0)[2], code);
  }
}

TEST_F(CIMDeviceUtilTest, UnknownDeviceIsNeitherModifiedNorDeleted) {
  EXPECT_EQ(process(event("modifyInstance", "S1", "P", "1", {{"a", "string", "1"}})), "NA");
  EXPECT_EQ(process(event("delInstance", "S1", "P")), "NA");
  EXPECT_THAT(container_.getInstances("UPOS_LogicalDevice"), IsEmpty());
}

TEST_F(CIMDeviceUtilTest, DeletionOfTheOnlyClassRemovesTheDeviceAndIsPublished) {
  process(event("addInstance", "S1", "P"));
  EXPECT_EQ(process(event("delInstance", "S1", "P")), "delInstance");
  EXPECT_EQ(cached("S1"), nullptr);
}

TEST_F(CIMDeviceUtilTest, DeletionOfOneOfTwoClassesKeepsTheDeviceUnpublished) {
  process(event("addInstance", "S1", "P"));
  process(event("addInstance", "S1", "Q"));
  EXPECT_EQ(process(event("delInstance", "S1", "P")), "NA");
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("Q"));
  EXPECT_EQ(process(event("delInstance", "S1", "Q")), "delInstance");
  EXPECT_EQ(cached("S1"), nullptr);
}

TEST_F(CIMDeviceUtilTest, AClassAddedTwiceIsDeletedTwice) {
  process(event("addInstance", "S1", "P"));
  process(event("addInstance", "S1", "P"));
  EXPECT_EQ(process(event("delInstance", "S1", "P")), "NA");
  EXPECT_EQ(process(event("delInstance", "S1", "P")), "delInstance");
}

TEST_F(CIMDeviceUtilTest, DeletionUnderAClassThatIsNotListedChangesNothing) {
  process(event("addInstance", "S1", "P"));
  EXPECT_EQ(process(event("delInstance", "S1", "p")), "NA");
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("P"));
}

TEST_F(CIMDeviceUtilTest, ADeletionsFieldsAreNotMerged) {
  process(event("addInstance", "S1", "P"));
  process(event("addInstance", "S1", "Q"));
  process(event("delInstance", "S1", "P", "", {{"a", "string", "1"}}));
  EXPECT_THAT(cached("S1")->fields(), IsEmpty());
}

TEST_F(CIMDeviceUtilTest, OtherTypesChangeNothing) {
  process(event("addInstance", "S1", "P"));
  for (const char* type : {"NA", "", "AddInstance", "addInstance ", "updateInstances"}) {
    EXPECT_EQ(process(event(type, "S1", "Q", "1", {{"a", "string", "1"}})), type);
    EXPECT_EQ(process(event(type, "S2", "Q", "1")), type);
  }
  EXPECT_THAT(cached("S1")->instances(), ElementsAre("P"));
  EXPECT_THAT(cached("S1")->fields(), IsEmpty());
  EXPECT_EQ(cached("S2"), nullptr);
}

TEST_F(CIMDeviceUtilTest, ReturnsTheEventUnchangedExceptItsType) {
  const Fields fields = {{"z", "datetime", "x"}, {"a", "string", "1"}};
  process(event("addInstance", "S1", "P"));
  const DeviceEvent returned =
      CIMDeviceUtil::processEvent(event("modifyInstance", "S1", "P", " ", fields), container_);
  EXPECT_EQ(returned.deviceId, "S1");
  EXPECT_EQ(returned.type, "NA");
  EXPECT_EQ(returned.className, "Scanner");
  EXPECT_EQ(returned.modifyInstanceCode, " ");
  EXPECT_EQ(returned.provider, "P");
  EXPECT_EQ(returned.fields, fields);
}

TEST_F(CIMDeviceUtilTest, TracesTheStepsOfAnAdd) {
  recorded_trace::clear();
  process(event("addInstance", "S1", "P"));
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("<<CIMDeviceUtil:processEvent>>: provider='P' type='addInstance' "
                  "devicFound=0000000000000000",
                  "Instance count before adding S1 is 0", "Adding instance P with ID S1",
                  "Instance count after adding S1 is 1", "Adding CIMDevice: S1",
                  "<<CIMDeviceUtil:processEvent>>: provider='P' type='addInstance' returning"));
}

TEST_F(CIMDeviceUtilTest, TracesTheFoundDeviceAndTheChangedType) {
  process(event("addInstance", "S1", "P"));
  char address[32];
  std::snprintf(
      address, sizeof address, "%016llX",
      static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(cached("S1").get())));
  recorded_trace::clear();
  process(event("modifyInstance", "S1", "Q"));
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("<<CIMDeviceUtil:processEvent>>: provider='Q' type='modifyInstance' "
                          "devicFound=" +
                              std::string(address),
                          "<<CIMDeviceUtil:processEvent>>: provider='Q' type='NA' returning"));
}

TEST_F(CIMDeviceUtilTest, TracesTheStepsOfTheLastDeletion) {
  process(event("addInstance", "S1", "P"));
  recorded_trace::clear();
  process(event("delInstance", "S1", "P"));
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre(StartsWith("<<CIMDeviceUtil:processEvent>>: provider='P' type='delInstance' "),
                  "Instance count before deleting S1 is 1", "Delete instance P with ID S1",
                  "Instance count after deleting S1 is 0", "Removing CIMDevice: S1",
                  "<<CIMDeviceUtil:processEvent>>: provider='P' type='delInstance' returning"));
}

TEST(CIMDeviceUtil, TextOfAPeerIsNotUsedAsAFormat) {
  CIMContainer container;
  recorded_trace::clear();
  CIMDeviceUtil::processEvent(event("addInstance", "%s%n", "%d"), container);
  EXPECT_THAT(recorded_trace::lines(), testing::Contains("Adding instance %d with ID %s%n"));
}

TEST(CIMDeviceUtil, UsesTheProcessesContainerByDefault) {
  CIMDeviceUtil::processEvent(event("addInstance", "default-container", "P"));
  const CIMDevice key("", "default-container", {});
  EXPECT_NE(CIMContainer::getInstance().find(key), nullptr);
  CIMDeviceUtil::processEvent(event("delInstance", "default-container", "P"));
  EXPECT_EQ(CIMContainer::getInstance().find(key), nullptr);
}

TEST(CIMDeviceUtil, RandomEventsGiveTheModelsTypesAndTheModelsCache) {
  std::mt19937 random(20);
  const auto pick = [&random](std::initializer_list<const char*> words) {
    return std::string(words.begin()[random() % words.size()]);
  };
  recorded_trace::setSwitchedOn(false);
  for (int round = 0; round < 200; ++round) {
    CIMContainer container;
    CacheModel model;
    for (int step = 0; step < 100; ++step) {
      DeviceEvent next =
          event(pick({"addInstance", "addInstance", "modifyInstance", "delInstance", "delInstance",
                      "NA", "other"}),
                pick({"", "a", "A", "b", "c", "d"}), pick({"P", "Q", ""}), pick({"", " ", "1"}));
      next.className = pick({"Scanner", "Scale", "UPOS_LogicalDevice"});
      for (auto fields = random() % 3; fields > 0; --fields) {
        next.fields.push_back({pick({"x", "y", "z"}), "string", std::to_string(random() % 10)});
      }
      ASSERT_EQ(CIMDeviceUtil::processEvent(next, container).type, model.process(next));
      ASSERT_EQ(seen(container.getInstances("UPOS_LogicalDevice")), model.devices);
      for (const CacheModel::Device& device : model.devices) {
        ASSERT_NE(container.find(CIMDevice("", device.id, {})), nullptr);
      }
    }
  }
  recorded_trace::setSwitchedOn(true);
}

// The trace is off: its lock would order the threads and hide a race from ThreadSanitizer.
TEST(CIMDeviceUtilThreads, ReadersSeeWholeDevicesWhileEventsChangeThem) {
  recorded_trace::setSwitchedOn(false);
  CIMContainer container;
  std::atomic<bool> done = false;
  std::atomic<long> seen = 0;
  const auto read = [&] {
    while (!done.load(std::memory_order_relaxed)) {
      for (const auto& device : container.getInstances("UPOS_LogicalDevice")) {
        // One event writes both fields, so they differ only in a half-changed device.
        ASSERT_EQ(device->fields().at(0)[2], device->fields().at(1)[2]);
        ASSERT_FALSE(device->instances().empty());
        seen.fetch_add(1, std::memory_order_relaxed);
      }
      container.find(CIMDevice("", "3", {}));
    }
  };
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back(read);
  }
  std::mt19937 random(7);
  for (int step = 0; step < 3'000 || seen.load(std::memory_order_relaxed) < 1'000; ++step) {
    const std::string value = "a value that is not kept within the string " + std::to_string(step);
    const char* const types[] = {"addInstance", "modifyInstance", "delInstance"};
    CIMDeviceUtil::processEvent(event(types[random() % 3], std::to_string(random() % 8), "P", "1",
                                      {{"one", "string", value}, {"two", "string", value}}),
                                container);
  }
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  recorded_trace::setSwitchedOn(true);
}

} // namespace
