#include "adapter/UPOSXMLAdapter.h"
#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"

#include <gtest/gtest.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

using model::DeviceEvent;
using model::InstanceList;
using xml::DocumentReader;
using xml::XmlLibrary;
using xml::xmlLock;

namespace {

bool libraryIsRunning() {
  return xercesc::XMLPlatformUtils::fgMemoryManager != nullptr;
}

std::string numbered(std::string name, int number) {
  name += std::to_string(number);
  return name;
}

TEST(UPOSXMLAdapterThreads, RequestsAnswersAndEventsOnSeveralThreadsDoNotMix) {
  constexpr int kRounds = 40;
  std::atomic<int> requests = 0;
  std::atomic<int> answers = 0;
  std::atomic<int> events = 0;
  std::atomic<int> second = 0;

  std::thread building([&] {
    for (int round = 0; round < kRounds; ++round) {
      const std::string id = numbered("ID", round);
      std::string out;
      UPOSXMLAdapter().toXML("UPOS_Scale", "request", "getInstance", id, out);
      requests += out.find("<id>" + id + "</id></request>") != std::string::npos ? 1 : 0;
    }
  });
  std::thread reading([&] {
    for (int round = 0; round < kRounds; ++round) {
      const std::string id = numbered("ID", round);
      UPOSXMLAdapter adapter;
      adapter.fromXML("<r><instance name='UPOS_Scale'><field name='DeviceID' type='string'>" + id +
                      "</field><field name='ManufacturerName' type='string'>OEM</field></instance>"
                      "</r>");
      answers += adapter.getInstances() == InstanceList{{{"DeviceID", "string", id},
                                                         {"ManufacturerName", "string", "OEM"}}}
                     ? 1
                     : 0;
    }
  });
  std::thread receiving([&] {
    UPOSXMLAdapter adapter;
    for (int round = 0; round < kRounds; ++round) {
      const std::string id = numbered("ID", round);
      const DeviceEvent event = adapter.fromXMLEvent(
          "<event type='addInstance' classname='Scale'><field name='DeviceID'>" + id +
          "</field><field name='ManufacturerName'>OEM</field></event>");
      events += event.deviceId == id && event.type == "addInstance" ? 1 : 0;
    }
  });
  // Reads outside the XML lock, like the second reading of an event.
  std::thread readingOutside([&] {
    for (int round = 0; round < kRounds; ++round) {
      const XmlLibrary library;
      const DocumentReader document("<event provider='" + numbered("P", round) + "'/>");
      second +=
          document.attributeOf(*document.elements(u"event")[0], u"provider") == numbered("P", round)
              ? 1
              : 0;
    }
  });
  building.join();
  reading.join();
  receiving.join();
  readingOutside.join();

  EXPECT_EQ(requests, kRounds);
  EXPECT_EQ(answers, kRounds);
  EXPECT_EQ(events, kRounds);
  EXPECT_EQ(second, kRounds);
}

TEST(UPOSXMLAdapter, NeverHoldsTheLibraryAcrossCalls) {
  UPOSXMLAdapter adapter;
  std::string request;
  adapter.toXML("UPOS_Scanner", "request", "enumerateInstances", "", request);
  EXPECT_FALSE(libraryIsRunning());
  adapter.toXML("UPOS_Scanner", "not a name", "enumerateInstances", "", request);
  EXPECT_FALSE(libraryIsRunning());
  adapter.fromXML("<response/>");
  EXPECT_FALSE(libraryIsRunning());
  adapter.fromXML("<response");
  EXPECT_FALSE(libraryIsRunning());
  adapter.fromXMLEvent("<event/>");
  EXPECT_FALSE(libraryIsRunning());
  adapter.fromXMLEvent("<event");
  EXPECT_FALSE(libraryIsRunning());
}

TEST(UPOSXMLAdapterThreads, ReadingAndBuildingWaitForTheXmlLock) {
  std::vector<std::future<void>> calls;
  {
    const std::scoped_lock lock(xmlLock());
    calls.push_back(std::async(std::launch::async, [] { UPOSXMLAdapter().fromXML("<r/>"); }));
    calls.push_back(std::async(std::launch::async, [] { UPOSXMLAdapter().fromXMLEvent("<r/>"); }));
    calls.push_back(std::async(std::launch::async, [] {
      std::string out;
      UPOSXMLAdapter().toXML("C", "request", "getInstance", "", out);
    }));
    for (const std::future<void>& call : calls) {
      EXPECT_EQ(call.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
  }
  for (std::future<void>& call : calls) {
    call.get();
  }
}

} // namespace
