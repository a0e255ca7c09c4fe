#include "RecordedTrace.h"
#include "cache/CIMDeviceUtil.h"
#include "xml/DocumentReader.h"
#include "xml/ProxyImpXmlAdapter.h"
#include "xml/UPOSXMLAdapter.h"
#include "xml/XmlLibrary.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string numbered(std::string name, int number) {
  name += std::to_string(number);
  return name;
}

TEST(XmlThreads, RequestsAnswersAndEventsOnSeveralThreadsDoNotMix) {
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
  // Reads outside the XML lock, as whoever reads an event a second time does.
  std::thread readingOutside([&] {
    for (int round = 0; round < kRounds; ++round) {
      const XmlLibrary library;
      const DocumentReader document("<event provider='" + numbered("P", round) + "'/>");
      second += attributeOf(*document.elements(u"event").at(0), u"provider") == numbered("P", round)
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

// The trace is off: its lock would order the threads and hide a race from ThreadSanitizer.
TEST(XmlThreads, RequestsAreAnsweredFromTheCacheWhileEventsChangeIt) {
  recorded_trace::setSwitchedOn(false);
  const XmlLibrary library; // the events' own starts of it would take most of the time
  std::atomic<bool> done = false;
  std::atomic<int> answered = 0;
  const auto request = [&] {
    while (!done.load(std::memory_order_relaxed)) {
      com::orvex::ProxyImpXmlAdapter adapter;
      std::string text;
      adapter.toXML("UPOS_LogicalDevice", "request", "enumerateInstances", "", text);
      adapter.fromXML(adapter.sendRequest(text));
      for (const Instance& device : adapter.getInstances()) {
        // Both fields come with one event: they differ in a half-changed device only.
        ASSERT_EQ(device.size(), 4U);
        ASSERT_EQ(device[2][2], device[3][2]);
        answered.fetch_add(1, std::memory_order_relaxed);
      }
    }
  };
  std::vector<std::thread> requests;
  for (int thread = 0; thread < 2; ++thread) {
    requests.emplace_back(request);
  }
  com::orvex::ProxyImpXmlAdapter events;
  const char* const types[] = {"addInstance", "modifyInstance", "delInstance"};
  for (int step = 0; step < 300 || answered.load(std::memory_order_relaxed) < 300; ++step) {
    const std::string value = numbered("a value that is not kept within the string ", step);
    CIMDeviceUtil::processEvent(events.fromXMLEvent(
        std::string("<event type='") + types[step % 3] + "' classname='Scanner' provider='P'>" +
        "<field name='DeviceID' type='string'>" + numbered("ID", step % 4) + "</field>" +
        "<field name='ManufacturerName' type='string'>ORVEX</field><field name='one' " +
        "type='string'>" + value + "</field><field name='two' type='string'>" + value +
        "</field></event>"));
  }
  done = true;
  for (std::thread& thread : requests) {
    thread.join();
  }
  recorded_trace::setSwitchedOn(true);
}

} // namespace
