#include "RecordedTrace.h"
#include "proxy/CIMContainer.h"
#include "proxy/Poller.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "proxy/SendToClients.h"
#include "xml/XmlLibrary.h"
#include "xml/testing/UnreadableDocuments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using com::orvex::Poller;
using com::orvex::ProxyImpXmlAdapter;
using model::DeviceEvent;
using model::Fields;
using model::InstanceList;
using proxy::CIMContainer;
using proxy::CIMDevice;
using testing::ElementsAre;
using testing::IsEmpty;
using xml::xmlLock;
using xml_testing::repeated;
using xml_testing::UnreadableDocument;
using xml_testing::unreadableDocuments;

namespace {

using Lines = std::vector<std::string>;

Lines sent; // to the device servers
std::mutex sending;

const std::string kUpdateRequest =
    "<?xml version='1.0' encoding='UTF-8' standalone='no' ?><request><type>updateInstances</type>"
    "</request>";

/// A poller created at 0 seconds, whose clock advances by `step` seconds at each reading.
class SteppingPoller : public Poller {
public:
  SteppingPoller(std::int32_t minutes, std::int64_t step, std::int64_t time)
      : Poller(minutes, 0), step_(step), time_(time) {}
  std::int64_t currentTime() override { return time_ += step_; }

private:
  std::int64_t step_;
  std::int64_t time_;
};

/// Never destroyed: the process keeps using it.
void usePoller(std::int32_t minutes, std::int64_t step, std::int64_t time = 0) {
  static auto& used = *new std::vector<Poller*>;
  used.push_back(new SteppingPoller(minutes, step, time));
  Poller::replaceInstance(*used.back());
}

class ProxyXmlAdapter : public testing::Test {
protected:
  ProxyXmlAdapter() {
    sent.clear();
    recorded_trace::clear();
  }
  ~ProxyXmlAdapter() override {
    for (const auto& device : CIMContainer::getInstance().getInstances("UPOS_LogicalDevice")) {
      CIMContainer::getInstance().remove(*device);
    }
  }

  static void cache(const std::string& className, const std::string& id,
                    const Fields& fields = {}) {
    CIMContainer::getInstance().add(CIMDevice(className, id, fields));
  }
  InstanceList ask(const std::string& className, const std::string& cmd,
                   const std::string& id = "") {
    std::string out;
    EXPECT_EQ(adapter_.toXML(className, "request", cmd, id, out), 0U);
    return adapter_.getInstances();
  }
  std::size_t count(const std::string& className, const std::string& cmd,
                    const std::string& id = "") {
    return ask(className, cmd, id).size();
  }

  ProxyImpXmlAdapter adapter_;
};

TEST_F(ProxyXmlAdapter, TheUpdateRequestIsTheSame102CharactersForAnyArguments) {
  EXPECT_EQ(kUpdateRequest.size(), 102U);
  for (const std::string text : {"", "request", "<&>", "%s"}) {
    std::string out = "left over";
    EXPECT_EQ(adapter_.toXML(text, text, text, text, out), 0U);
    EXPECT_EQ(out, kUpdateRequest);
  }
}

TEST_F(ProxyXmlAdapter, FillsTheListWithTheDevicesOfTheClass) {
  cache("Scanner", "S1", {{"b", "uint32", "2"}, {"a", "boolean", "TRUE"}, {"c", "datetime", ""}});
  cache("Scale", "C1", {{"x", "string", "1"}});
  cache("Scanner", "S2");
  EXPECT_EQ(ask("Scanner", "enumerateInstances"),
            (InstanceList{{{"a", "boolean", "true"}, {"b", "uint32", "2"}}, {}}));
  EXPECT_EQ(ask("Scale", "enumerateInstances"), (InstanceList{{{"x", "string", "1"}}}));
  EXPECT_EQ(ask("UPOS_Scanner", "enumerateInstances"), InstanceList{});
  EXPECT_EQ(count("UPOS_LogicalDevice", "enumerateInstances"), 3U);
}

TEST_F(ProxyXmlAdapter, GetInstanceTakesTheDeviceWhoseIdIsEqual) {
  cache("Scanner", "S1", {{"a", "string", "one"}});
  cache("Scanner", "S2", {{"a", "string", "two"}});
  cache("Scale", "", {{"a", "string", "no id"}});
  EXPECT_EQ(ask("Scanner", "getInstance", "S2"), (InstanceList{{{"a", "string", "two"}}}));
  EXPECT_EQ(ask("UPOS_LogicalDevice", "getInstance", "S1"),
            (InstanceList{{{"a", "string", "one"}}}));
  EXPECT_EQ(ask("Scale", "getInstance", ""), (InstanceList{{{"a", "string", "no id"}}}));
  EXPECT_EQ(ask("Scanner", "getInstance", "s2"), InstanceList{});
  EXPECT_EQ(ask("Scale", "getInstance", "S1"), InstanceList{});
  EXPECT_EQ(ask("Scanner", "getInstance", ""), InstanceList{});
}

TEST_F(ProxyXmlAdapter, ARequestTracesTheSameLinesWheneverTheTraceIsSwitchedOn) {
  cache("Scanner", "S1");
  cache("Scanner", "S2");
  const auto linesOf = [this](const char* cmd, bool on) {
    recorded_trace::setSwitchedOn(on);
    const int before = recorded_trace::timesAsked();
    ask("Scanner", cmd, "S2");
    recorded_trace::setSwitchedOn(true);
    return recorded_trace::timesAsked() - before;
  };
  EXPECT_EQ(linesOf("getInstance", false), linesOf("getInstance", true));
  EXPECT_EQ(linesOf("enumerateInstances", false), linesOf("enumerateInstances", true));
}

TEST_F(ProxyXmlAdapter, AnyOtherCommandTakesEveryDeviceWhateverTheId) {
  cache("Scanner", "S1");
  cache("Scanner", "S2");
  for (const char* cmd : {"enumerateInstances", "GetInstance", "getInstance ", ""}) {
    EXPECT_EQ(count("Scanner", cmd, "S1"), 2U) << cmd;
  }
}

TEST_F(ProxyXmlAdapter, EachRequestReplacesTheList) {
  cache("Scanner", "S1");
  EXPECT_EQ(count("Scanner", "enumerateInstances"), 1U);
  EXPECT_EQ(count("Scanner", "enumerateInstances"), 1U);
  EXPECT_EQ(count("Scale", "enumerateInstances"), 0U);
}

TEST_F(ProxyXmlAdapter, StartsWithAnEmptyList) {
  EXPECT_EQ(adapter_.getInstances(), InstanceList{});
}

TEST_F(ProxyXmlAdapter, TracesARequest) {
  cache("Scanner", "S1");
  recorded_trace::clear();
  std::string out;
  adapter_.toXML("Scanner", "request", "getInstance", "S1", out);
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> toXML className=Scanner type=request cmd=getInstance "
                   "id=S1",
                   "CIMContainer::getInstances(Scanner)", "CIMContainer::adding instance (id=S1)",
                   "<<ProxyImpXmlAdapter>> updateInstances className=Scanner id=S1 device list "
                   "size=1",
                   "<<ProxyImpXmlAdapter>> toXML className=Scanner type=request cmd=getInstance "
                   "id=S1 returning '" +
                       kUpdateRequest + "'"}));
}

TEST_F(ProxyXmlAdapter, FromXmlReadsNothing) {
  cache("Scanner", "S1");
  const InstanceList before = ask("Scanner", "enumerateInstances");
  recorded_trace::clear();
  for (const std::string response :
       {"", "garbage", "<response><error name='e'/></response>",
        "<response><instance name='UPOS_Scanner'><field name='ManufacturerName' type='string'>"
        "ORVEX</field></instance></response>"}) {
    EXPECT_EQ(adapter_.fromXML(response), 0U);
    EXPECT_EQ(adapter_.getInstances(), before);
  }
  EXPECT_THAT(recorded_trace::lines(), IsEmpty());
}

TEST_F(ProxyXmlAdapter, WithAFrequencyOfZeroEveryRequestIsSent) {
  usePoller(0, 0);
  recorded_trace::clear();
  EXPECT_EQ(adapter_.sendRequest(kUpdateRequest), "");
  EXPECT_EQ(adapter_.sendRequest("%s"), "");
  EXPECT_EQ(sent, (Lines{kUpdateRequest, "%s"}));
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=1",
                   "<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=1"}));
}

TEST_F(ProxyXmlAdapter, BeforeThePeriodIsOverNothingIsSent) {
  usePoller(1, 1);
  recorded_trace::clear();
  EXPECT_EQ(adapter_.sendRequest(kUpdateRequest), "");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=0"}));
}

// By design the first of the two calls starts the next period.
TEST_F(ProxyXmlAdapter, WhenAPollIsDueItIsTracedAndNothingIsSent) {
  usePoller(60, 0, 3600);
  recorded_trace::clear();
  EXPECT_EQ(adapter_.sendRequest(kUpdateRequest), "");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=1"}));
}

TEST_F(ProxyXmlAdapter, SendsWhenThePeriodEndsBetweenTheTwoCalls) {
  usePoller(1, 30); // 30 seconds at the first call, 60 at the second
  recorded_trace::clear();
  EXPECT_EQ(adapter_.sendRequest(kUpdateRequest), "");
  EXPECT_EQ(sent, (Lines{kUpdateRequest}));
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=0"}));
}

struct EventText {
  std::string attributes = "type='modifyInstance' classname='Scanner' modifyInstanceCode='1' "
                           "provider='UPOS_Scanner'";
  std::string content = "<field name='DeviceID' type='string'>S1</field>"
                        "<field name='ManufacturerName' type='string'>ORVEX</field>"
                        "<field name='Count' type='uint32'>7</field>";
  std::string text() const { return "<event " + attributes + ">" + content + "</event>"; }
};

TEST_F(ProxyXmlAdapter, ReadsAllOfAnEvent) {
  const DeviceEvent event = adapter_.fromXMLEvent(EventText().text());
  EXPECT_EQ(event.deviceId, "S1");
  EXPECT_EQ(event.type, "modifyInstance");
  EXPECT_EQ(event.className, "Scanner");
  EXPECT_EQ(event.modifyInstanceCode, "1");
  EXPECT_EQ(event.provider, "UPOS_Scanner");
  EXPECT_EQ(event.fields, (Fields{{"DeviceID", "string", "S1"},
                                  {"ManufacturerName", "string", "ORVEX"},
                                  {"Count", "uint32", "7"}}));
}

TEST_F(ProxyXmlAdapter, TracesAnEvent) {
  const std::string text = EventText().text();
  adapter_.fromXMLEvent(text);
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<ProxyImpXmlAdapter>> fromXMLEvent(event='" + text + "')",
                   "<<ProxyImpXmlAdapter>>     provider=UPOS_Scanner fieldlist_length=3",
                   "<<ProxyImpXmlAdapter>>         name=DeviceID type=string value=S1",
                   "<<ProxyImpXmlAdapter>>         name=ManufacturerName type=string value=ORVEX",
                   "<<ProxyImpXmlAdapter>>         name=Count type=uint32 value=7"}));
}

TEST_F(ProxyXmlAdapter, AForeignMakersEventKeepsItsProviderAndFields) {
  const DeviceEvent event = adapter_.fromXMLEvent(
      "<event type='addInstance' classname='Scanner' provider='P'>"
      "<field name='DeviceID' type='string'>S1</field>"
      "<field name='ManufacturerName' type='string'>Somebody</field></event>");
  EXPECT_EQ(event.type, "NA");
  EXPECT_EQ(event.className, "NA");
  EXPECT_EQ(event.deviceId, "S1");
  EXPECT_EQ(event.provider, "P");
  EXPECT_EQ(event.fields.size(), 2U);
}

TEST_F(ProxyXmlAdapter, AMissingProviderIsEmptyAndAnEventMayHaveNoFields) {
  const DeviceEvent event = adapter_.fromXMLEvent("<event type='addInstance'/>");
  EXPECT_EQ(event.provider, "");
  EXPECT_THAT(event.fields, IsEmpty());
  EXPECT_EQ(recorded_trace::lines().back(),
            "<<ProxyImpXmlAdapter>>     provider= fieldlist_length=0");
}

TEST_F(ProxyXmlAdapter, KeepsEveryFieldIncludingNestedRepeatedAndIncompleteOnes) {
  EventText text;
  text.content = "<field>no name</field><group><field name='a' type='t'>1</field></group>"
                 "<field name='a' type='t'>2</field><field name='b'/>";
  EXPECT_EQ(adapter_.fromXMLEvent(text.text()).fields,
            (Fields{{"", "", "no name"}, {"a", "t", "1"}, {"a", "t", "2"}, {"b", "", ""}}));
}

TEST_F(ProxyXmlAdapter, ReadsTheFirstOfTwoEventsOnly) {
  EventText second;
  second.attributes = "type='addInstance' provider='second'";
  const DeviceEvent event =
      adapter_.fromXMLEvent("<r>" + EventText().text() + second.text() + "</r>");
  EXPECT_EQ(event.provider, "UPOS_Scanner");
  EXPECT_EQ(event.fields.size(), 3U);
}

TEST_F(ProxyXmlAdapter, ADocumentWithoutAnEventHasNeitherProviderNorFields) {
  const DeviceEvent event =
      adapter_.fromXMLEvent("<r provider='p'><field name='a' type='string'>1</field></r>");
  EXPECT_EQ(event.type, "NA");
  EXPECT_EQ(event.provider, "");
  EXPECT_THAT(event.fields, IsEmpty());
}

TEST_F(ProxyXmlAdapter, ReadsUpToTheFirstZeroByte) {
  const DeviceEvent event =
      adapter_.fromXMLEvent(EventText().text() + std::string(1, '\0') + "<garbage");
  EXPECT_EQ(event.type, "modifyInstance");
  EXPECT_EQ(event.fields.size(), 3U);
}

TEST_F(ProxyXmlAdapter, NothingComesFromAnUnreadableDocument) {
  for (const UnreadableDocument& document : unreadableDocuments()) {
    const DeviceEvent event = adapter_.fromXMLEvent(document.text);
    EXPECT_EQ(event.type, "NA") << document.label;
    EXPECT_EQ(event.className, "NA") << document.label;
    EXPECT_EQ(event.deviceId, "") << document.label;
    EXPECT_EQ(event.provider, "") << document.label;
    EXPECT_THAT(event.fields, IsEmpty()) << document.label;
  }
}

TEST_F(ProxyXmlAdapter, TheSecondReadingOfAnUnreadableDocumentIsNotTraced) {
  adapter_.fromXMLEvent("<event");
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("<<ProxyImpXmlAdapter>> fromXMLEvent(event='<event')",
                          "<<XMLAdapter XML Exception >> : ", testing::_));
}

TEST_F(ProxyXmlAdapter, TheSecondReadingDoesNotHoldTheXmlLock) {
  EventText text;
  text.content = repeated(20'000, "<field name='n' type='string'>v</field>");
  std::atomic<bool> done = false;
  std::thread reading([&] {
    EXPECT_EQ(adapter_.fromXMLEvent(text.text()).fields.size(), 20'000U);
    done = true;
  });
  // The field lines come from the second reading.
  while (!done && recorded_trace::lines().size() < 3) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(xmlLock().try_lock());
  xmlLock().unlock();
  reading.join();
}

TEST_F(ProxyXmlAdapter, EventsAreReadOnSeveralThreadsConcurrently) {
  recorded_trace::setSwitchedOn(false);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([number] {
      EventText text;
      text.attributes = "type='addInstance' provider='" + std::to_string(number) + "'";
      ProxyImpXmlAdapter adapter;
      for (int i = 0; i < 50; ++i) {
        const DeviceEvent event = adapter.fromXMLEvent(text.text());
        ASSERT_EQ(event.provider, std::to_string(number));
        ASSERT_EQ(event.fields.size(), 3U);
        ASSERT_EQ(adapter.fromXMLEvent("<event provider='p'").provider, "");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  recorded_trace::setSwitchedOn(true);
}

} // namespace

/// Replaces the event socket server's sender.
void proxy::sendToClients(const std::string& text) {
  const std::scoped_lock lock(sending);
  sent.push_back(text);
}
