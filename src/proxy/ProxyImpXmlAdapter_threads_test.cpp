#include "RecordedTrace.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "xml/XmlLibrary.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using model::Instance;
using proxy::CIMDeviceUtil;
using xml::XmlLibrary;

namespace {

std::string numbered(std::string name, int number) {
  name += std::to_string(number);
  return name;
}

// The trace is off: its lock would order the threads and hide a race from ThreadSanitizer.
TEST(ProxyImpXmlAdapterThreads, RequestsAreAnsweredFromTheCacheWhileEventsChangeIt) {
  recorded_trace::setSwitchedOn(false);
  const XmlLibrary library; // spares the library's start for each event
  std::atomic<bool> done = false;
  std::atomic<int> answered = 0;
  const auto request = [&] {
    while (!done.load(std::memory_order_relaxed)) {
      com::orvex::ProxyImpXmlAdapter adapter;
      std::string text;
      adapter.toXML("UPOS_LogicalDevice", "request", "enumerateInstances", "", text);
      adapter.fromXML(adapter.sendRequest(text));
      for (const Instance& device : adapter.getInstances()) {
        // One event writes both fields, so they differ only in a half-changed device.
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
