#include "device_server/Frame.h"
#include "device_server/Inventory.h"
#include "device_server/Simulator.h"
#include "device_server/Xml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <system_error>

namespace till {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const XmlLibrary kLibrary;

class RecordingChannel : public EventChannel {
public:
  void send(Delivery delivery) override {
    if (broken) {
      throw std::system_error(std::make_error_code(std::errc::network_down));
    }
    sent.push_back(delivery.bytes);
    last = std::move(delivery);
  }
  bool isConnected() const override { return up; }
  void disconnect() override { up = false; }
  void reconnect() override { up = true; }

  std::vector<std::string> sent;
  Delivery last;
  bool broken = false;
  bool up = true;
};

constexpr const char* kInventory = R"(<till>
    <device class="UPOS_Scanner" id="S1"><field name="ManufacturerName" type="string">OEM</field></device>
    <device class="UPOS_Scanner" id="S2" attached="false"><field name="ManufacturerName" type="string">OEM</field></device>
    <device class="UPOS_Scale" id="W1"><field name="ManufacturerName" type="string">ORVEX</field></device>
  </till>)";

class SimulatorTest : public testing::Test {
protected:
  void command(std::string_view line) { simulator_.execute(*parseCommand(line)); }

  std::string complaintAbout(std::string_view line) {
    try {
      command(line);
    } catch (const CommandError& problem) {
      return problem.what();
    }
    return "no complaint";
  }

  /// The ids in the answer to a request; "error" for an error answer.
  std::vector<std::string> ask(const std::string& type, const std::string& className,
                               const std::string& id = {}) {
    const std::string request = "<request><type>" + type + "</type><class>" + className +
                                "</class><id>" + id + "</id></request>";
    const auto message = FrameScanner().feed(simulator_.answer(request).bytes);
    std::vector<std::string> ids;
    for (const XmlElement& child : readXml(message.value()).children) {
      ids.push_back(child.name == "error" ? "error" : child.children.at(0).text);
    }
    return ids;
  }
  std::vector<std::string> enumerate(const std::string& className) {
    return ask("enumerateInstances", className);
  }

  std::ostringstream out_;
  std::ostringstream errors_;
  Log log_{out_, errors_, {}};
  RecordingChannel channel_;
  Simulator simulator_{readInventory(kInventory, "t.xml").till, channel_, log_};
};

TEST_F(SimulatorTest, listsTheAttachedDevicesOfAClassAndAllUnderLogicalDevice) {
  EXPECT_THAT(enumerate("UPOS_Scanner"), ElementsAre("S1"));
  EXPECT_THAT(enumerate("UPOS_Scale"), ElementsAre("W1"));
  EXPECT_THAT(enumerate("UPOS_LogicalDevice"), ElementsAre("S1", "W1"));
  EXPECT_THAT(enumerate("UPOS_MSR"), IsEmpty());
}

TEST_F(SimulatorTest, findsADeviceByClassAndId) {
  EXPECT_THAT(ask("getInstance", "UPOS_Scale", "W1"), ElementsAre("W1"));
  EXPECT_THAT(ask("getInstance", "UPOS_LogicalDevice", "W1"), ElementsAre("W1"));
  EXPECT_THAT(ask("getInstance", "UPOS_Scanner", "W1"), IsEmpty());
  EXPECT_THAT(ask("getInstance", "UPOS_Scanner", "S2"), IsEmpty());
  EXPECT_THAT(ask("getInstance", "UPOS_Scanner", "s1"), IsEmpty());
}

TEST_F(SimulatorTest, answersUnknownTypesAndMalformedRequestsWithAnError) {
  EXPECT_THAT(ask("enumerateInstanceNames", "UPOS_Scale"), ElementsAre("error"));
  EXPECT_THAT(simulator_.answer("rubbish").bytes, HasSubstr("<error name=\"malformed request: "));
  EXPECT_THAT(out_.str(), HasSubstr("request refused: unknown request type"));
  EXPECT_THAT(out_.str(), HasSubstr("request refused: malformed request: "));
}

TEST_F(SimulatorTest, logsEachRequestOnOneLine) {
  enumerate("UPOS_Scanner");
  ask("getInstance", "UPOS_Scale", "no\nsuch");
  EXPECT_THAT(out_.str(), HasSubstr("request enumerateInstances UPOS_Scanner -> 1 instance, "));
  EXPECT_THAT(out_.str(), HasSubstr("request getInstance UPOS_Scale no?such -> 0 instances, "));
}

TEST_F(SimulatorTest, attachingAndDetachingChangesTheListAndSendsEvents) {
  command("attach S2");
  EXPECT_THAT(enumerate("UPOS_Scanner"), ElementsAre("S1", "S2"));
  command("change S2 9");
  command("detach S1");
  EXPECT_THAT(enumerate("UPOS_Scanner"), ElementsAre("S2"));
  const std::string declaration = "\x1B<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";
  const auto tail = [](const std::string& id) {
    return "provider=\"UPOS_Scanner\"><field name=\"DeviceID\" type=\"string\">" + id +
           "</field><field name=\"ManufacturerName\" type=\"string\">OEM</field></event>\x08";
  };
  const std::string kind = " classname=\"Scanner\" modifyInstanceCode=";
  EXPECT_THAT(
      channel_.sent,
      ElementsAre(declaration + "<event type=\"addInstance\"" + kind + "\"\" " + tail("S2"),
                  declaration + "<event type=\"modifyInstance\"" + kind + "\"9\" " + tail("S2"),
                  declaration + "<event type=\"delInstance\"" + kind + "\"\" " + tail("S1")));
}

TEST_F(SimulatorTest, refusesWhatMakesNoSense) {
  EXPECT_EQ(complaintAbout("attach S1"), "'S1' is attached already");
  EXPECT_EQ(complaintAbout("detach S2"), "'S2' is not attached");
  EXPECT_EQ(complaintAbout("change S2 1"), "'S2' is not attached");
  EXPECT_EQ(complaintAbout("attach X"), "unknown device 'X' (list shows the devices)");
  EXPECT_EQ(complaintAbout("set S1 DeviceID S3"), "a device's id cannot be changed");
  EXPECT_EQ(complaintAbout("set S1 \"\" x"), "a field needs a name");
  EXPECT_EQ(complaintAbout("set S1 ModelName \x08"),
            "an argument is not UTF-8 text that a document can carry");
  EXPECT_EQ(complaintAbout("change S1 \xFF"),
            "an argument is not UTF-8 text that a document can carry");
  EXPECT_THAT(channel_.sent, IsEmpty());
}

TEST_F(SimulatorTest, sendsAnyEventOnDemandWithoutChangingTheList) {
  command("event S2 \"NA \" 5");
  ASSERT_EQ(channel_.sent.size(), 1U);
  EXPECT_THAT(channel_.sent[0], HasSubstr("<event type=\"NA \" classname=\"Scanner\" "
                                          "modifyInstanceCode=\"5\""));
  EXPECT_THAT(enumerate("UPOS_Scanner"), ElementsAre("S1"));
}

TEST_F(SimulatorTest, setsFieldsForTheNextAnswers) {
  command("set W1 ManufacturerName \"Somebody else\"");
  command("set W1 ModelName <big>");
  const std::string answer =
      simulator_
          .answer("<request><type>enumerateInstances</type><class>UPOS_Scale</class></request>")
          .bytes;
  EXPECT_THAT(answer, HasSubstr("<field name=\"ManufacturerName\" type=\"string\">Somebody else<"));
  EXPECT_THAT(answer, HasSubstr("<field name=\"ModelName\" type=\"string\">&lt;big&gt;</field>"));
}

TEST_F(SimulatorTest, misbehavesUntilToldOtherwise) {
  command("misbehave error");
  EXPECT_THAT(enumerate("UPOS_Scale"), ElementsAre("error"));
  command("misbehave huge 3");
  EXPECT_THAT(enumerate("UPOS_Scale"), ElementsAre("HUGE000001", "HUGE000002", "HUGE000003"));
  command("misbehave stall");
  EXPECT_EQ(simulator_.answer("<request/>").end, Delivery::End::Hold);
  command("misbehave none");
  EXPECT_THAT(enumerate("UPOS_Scale"), ElementsAre("W1"));
  EXPECT_THAT(complaintAbout("misbehave sulk"), HasSubstr("unknown misbehaviour 'sulk'"));
  EXPECT_EQ(complaintAbout("misbehave stall 3"), "'stall' takes no number");
}

TEST_F(SimulatorTest, misbehavesWithEvents) {
  command("misbehave-events pieces");
  command("change S1 1");
  EXPECT_EQ(channel_.sent.size(), 2U);
  EXPECT_THAT(out_.str(), HasSubstr(" (pieces)\n"));
}

TEST_F(SimulatorTest, saysWhenAnEventIsTooLongForTheService) {
  command("set S1 ManufacturerName " + std::string(1000, 'x'));
  command("change S1 1");
  EXPECT_THAT(errors_.str(), HasSubstr("bytes: the service loses datagrams of more than 1024\n"));
}

TEST_F(SimulatorTest, reportsAnEventThatCouldNotBeSent) {
  channel_.broken = true;
  EXPECT_THAT(complaintAbout("change S1 1"), HasSubstr("the event was not sent: "));
}

TEST_F(SimulatorTest, checksAScriptsCommandsBeforeTheyRun) {
  EXPECT_THROW(simulator_.check(*parseCommand("attach X")), CommandError);
  EXPECT_THROW(simulator_.check(*parseCommand("misbehave slow")), CommandError);
  EXPECT_THROW(simulator_.check(*parseCommand("misbehave-events slow")), CommandError);
  EXPECT_NO_THROW(simulator_.check(*parseCommand("attach S1")));
  EXPECT_NO_THROW(simulator_.check(*parseCommand("misbehave slow 5")));
  EXPECT_NO_THROW(simulator_.check(*parseCommand("wait 5")));
  EXPECT_NO_THROW(simulator_.check(*parseCommand("list")));
  EXPECT_THAT(channel_.sent, IsEmpty());
}

TEST_F(SimulatorTest, showsItsDevicesAndItsState) {
  simulator_.setPorts(1, 2);
  enumerate("UPOS_Scale");
  simulator_.answer("rubbish");
  command("change S1");
  out_.str({});
  command("list");
  command("status");
  EXPECT_EQ(out_.str(), "attached UPOS_Scanner             S1               OEM\n"
                        "detached UPOS_Scanner             S2               OEM\n"
                        "attached UPOS_Scale               W1               ORVEX\n"
                        "requests on 127.0.0.1:1: 1 answered, 1 refused; answers: none\n"
                        "events to 127.0.0.1:2: 1 sent; events: none\n"
                        "3 devices, 2 attached\n");
}

TEST_F(SimulatorTest, hasNoConnectionInTheAdapterRole) {
  EXPECT_EQ(complaintAbout("disconnect"), "there is no connection in the adapter role");
  EXPECT_EQ(complaintAbout("reconnect"), "there is no connection in the adapter role");
  EXPECT_THAT(complaintAbout("misbehave-events batch 2"),
              HasSubstr("unknown misbehaviour 'batch'"));
}

constexpr const char* kUpdateRequest = "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
                                       "<request><type>updateInstances</type></request>";

class ProxySimulatorTest : public testing::Test {
protected:
  ProxySimulatorTest() { simulator_.execute(*parseCommand("set W1 ModelName Big")); }

  void command(std::string_view line) { simulator_.execute(*parseCommand(line)); }

  std::string complaintAbout(std::string_view line) {
    try {
      command(line);
    } catch (const CommandError& problem) {
      return problem.what();
    }
    return "no complaint";
  }

  static std::string event(const std::string& type, const std::string& code,
                           const std::string& category, const std::string& id,
                           const std::string& moreFields) {
    return "<?xml version='1.0' encoding='UTF-8' standalone='no' ?><event type=\"" + type +
           "\" classname=\"" + category + "\" modifyInstanceCode=\"" + code +
           "\" provider=\"UPOS_" + category + "\"><field name=\"DeviceID\" type=\"string\">" + id +
           "</field>" + moreFields + "</event>";
  }
  static std::string scannerEvent(const std::string& type, const std::string& code = {},
                                  const std::string& id = "S1") {
    return event(type, code, "Scanner", id,
                 "<field name=\"ManufacturerName\" type=\"string\">OEM</field>");
  }
  static std::string scaleEvent(const std::string& type, const std::string& code = {}) {
    return event(type, code, "Scale", "W1",
                 "<field name=\"ManufacturerName\" type=\"string\">ORVEX</field>"
                 "<field name=\"ModelName\" type=\"string\">Big</field>");
  }

  std::ostringstream out_;
  std::ostringstream errors_;
  Log log_{out_, errors_, {}};
  RecordingChannel channel_;
  Simulator simulator_{
      readInventory(kInventory, "t.xml").till, channel_, log_, {Strategy::Proxy, false}};
};

TEST_F(ProxySimulatorTest, sendsEachAttachedDeviceWithAllItsFieldsWhenConnected) {
  simulator_.connected();
  EXPECT_THAT(channel_.sent, ElementsAre(scannerEvent("addInstance"), scaleEvent("addInstance")));
  EXPECT_EQ(channel_.last.pieceSize, 0U);
  EXPECT_EQ(channel_.last.end, Delivery::End::Hold);
  EXPECT_THAT(out_.str(), HasSubstr("inventory -> 2 events\n"));
  EXPECT_EQ(errors_.str(), "");
}

TEST_F(ProxySimulatorTest, sendsTheWholeInventoryAgainAtEachConnect) {
  simulator_.connected();
  command("attach S2");
  channel_.sent.clear();
  simulator_.connected();
  EXPECT_THAT(channel_.sent,
              ElementsAre(scannerEvent("addInstance"), scannerEvent("addInstance", "", "S2"),
                          scaleEvent("addInstance")));
}

TEST_F(ProxySimulatorTest, sendsItsCommandsEventsUnframed) {
  command("attach S2");
  command("change S2 9");
  command("change W1");
  command("detach S1");
  command("event S1 oddEvent 5");
  EXPECT_THAT(channel_.sent,
              ElementsAre(scannerEvent("addInstance", "", "S2"),
                          scannerEvent("modifyInstance", "9", "S2"), scaleEvent("modifyInstance"),
                          scannerEvent("delInstance"), scannerEvent("oddEvent", "5")));
  EXPECT_THAT(out_.str(), HasSubstr("event modifyInstance Scanner S2 code 9, " +
                                    std::to_string(channel_.sent[1].size()) + " bytes\n"));
}

TEST_F(ProxySimulatorTest, answersAnUpdateRequestWithModificationsWithoutACode) {
  simulator_.update(kUpdateRequest);
  EXPECT_THAT(channel_.sent,
              ElementsAre(scannerEvent("modifyInstance"), scaleEvent("modifyInstance")));
  EXPECT_THAT(out_.str(), HasSubstr("request updateInstances -> 2 events\n"));
}

TEST_F(ProxySimulatorTest, answersNoOtherRequestOnTheStream) {
  simulator_.update("<request><type>enumerateInstances</type><class>UPOS_Scale</class></request>");
  simulator_.update("rubbish</request>");
  EXPECT_THAT(channel_.sent, IsEmpty());
  EXPECT_THAT(out_.str(),
              HasSubstr("request refused: unknown request type 'enumerateInstances'\n"));
  EXPECT_THAT(out_.str(), HasSubstr("request refused: malformed request: "));
}

TEST_F(ProxySimulatorTest, mayNameTheWholeClassInItsEvents) {
  Simulator whole(readInventory(kInventory, "t.xml").till, channel_, log_, {Strategy::Proxy, true});
  whole.execute(*parseCommand("change S1 1"));
  ASSERT_EQ(channel_.sent.size(), 1U);
  EXPECT_THAT(channel_.sent[0], HasSubstr(" classname=\"UPOS_Scanner\" modifyInstanceCode=\"1\" "
                                          "provider=\"UPOS_Scanner\">"));
}

TEST_F(ProxySimulatorTest, saysThatAnEventWithoutAConnectionIsNotSentAndKeepsTheListCurrent) {
  command("disconnect");
  EXPECT_EQ(complaintAbout("attach S2"), "the event was not sent: the service is not connected");
  EXPECT_EQ(complaintAbout("detach S1"), "the event was not sent: the service is not connected");
  command("reconnect");
  EXPECT_THAT(channel_.sent, IsEmpty());
  simulator_.connected();
  EXPECT_THAT(channel_.sent,
              ElementsAre(scannerEvent("addInstance", "", "S2"), scaleEvent("addInstance")));
}

TEST_F(ProxySimulatorTest, reportsWhatTheStreamDoesNotTake) {
  channel_.broken = true;
  EXPECT_THAT(complaintAbout("change S1 1"), HasSubstr("the event was not sent: "));
  simulator_.connected();
  EXPECT_THAT(errors_.str(), HasSubstr("the event was not sent: "));
  EXPECT_THAT(out_.str(), HasSubstr("inventory -> 0 events\n"));
}

TEST_F(ProxySimulatorTest, holdsEventsBackUntilThereAreEnough) {
  command("misbehave-events batch 3");
  command("change S1 1");
  command("change S1 2");
  EXPECT_THAT(channel_.sent, IsEmpty());
  command("change S1 3");
  EXPECT_THAT(channel_.sent, ElementsAre(scannerEvent("modifyInstance", "1") +
                                         scannerEvent("modifyInstance", "2") +
                                         scannerEvent("modifyInstance", "3")));
  EXPECT_THAT(out_.str(), HasSubstr(" bytes (batch 3)\n"));
}

TEST_F(ProxySimulatorTest, holdsNothingOfAnInventoryBack) {
  command("misbehave-events batch 200");
  simulator_.connected();
  EXPECT_THAT(channel_.sent, ElementsAre(scannerEvent("addInstance") + scaleEvent("addInstance")));
  EXPECT_THAT(out_.str(), HasSubstr("inventory -> 2 events (batch 200)\n"));
}

TEST_F(ProxySimulatorTest, sendsWhatItHeldBackBeforeItBehavesOtherwise) {
  command("misbehave-events batch 3");
  command("change S1 1");
  command("misbehave-events none");
  EXPECT_THAT(channel_.sent, ElementsAre(scannerEvent("modifyInstance", "1")));
}

TEST_F(ProxySimulatorTest, forgetsWhatItHeldBackForAnEarlierConnection) {
  command("misbehave-events batch 3");
  command("change S1 1");
  simulator_.connected();
  EXPECT_THAT(channel_.sent, ElementsAre(scannerEvent("addInstance") + scaleEvent("addInstance")));
}

TEST_F(ProxySimulatorTest, endsTheConnectionWithOneEventOnly) {
  for (const auto& [word, end] :
       {std::pair("cut", Delivery::End::Close), std::pair("reset", Delivery::End::Reset)}) {
    channel_.sent.clear();
    command(std::string("misbehave-events ") + word);
    command("change S1 1");
    EXPECT_EQ(channel_.last.end, end) << word;
    command("change S1 1");
    EXPECT_EQ(channel_.last.end, Delivery::End::Hold) << word;
    const std::string whole = scannerEvent("modifyInstance", "1");
    EXPECT_THAT(channel_.sent, ElementsAre(whole.substr(0, whole.size() / 2), whole)) << word;
  }
}

TEST_F(ProxySimulatorTest, hasNoAnswersToMisbehaveWith) {
  EXPECT_EQ(complaintAbout("misbehave stall"),
            "nothing is answered in the proxy role: misbehave-events is its command");
  EXPECT_THAT(complaintAbout("misbehave-events oversize"),
              HasSubstr("unknown misbehaviour 'oversize'"));
  EXPECT_THAT(complaintAbout("misbehave-events batch"), HasSubstr("'batch' takes a number"));
}

TEST_F(ProxySimulatorTest, hasNoLimitForAnEvent) {
  command("set S1 ModelName " + std::string(5000, 'x'));
  command("change S1 1");
  EXPECT_EQ(errors_.str(), "");
  ASSERT_EQ(channel_.sent.size(), 1U);
  EXPECT_GT(channel_.sent[0].size(), 5000U);
}

TEST_F(ProxySimulatorTest, showsItsState) {
  simulator_.setPorts(0, 2);
  simulator_.connected();
  simulator_.update(kUpdateRequest);
  simulator_.update("<request/>");
  command("change S1 1");
  out_.str({});
  command("status");
  command("disconnect");
  command("status");
  EXPECT_EQ(out_.str(), "update requests: 1 answered, 1 refused\n"
                        "events to 127.0.0.1:2 (connected): 5 sent; events: none\n"
                        "3 devices, 2 attached\n"
                        "update requests: 1 answered, 1 refused\n"
                        "events to 127.0.0.1:2 (not connected): 5 sent; events: none\n"
                        "3 devices, 2 attached\n");
}

TEST(LogTest, quietKeepsAnswersAndErrors) {
  std::ostringstream out;
  std::ostringstream errors;
  Log log(out, errors, {true, false});
  log.event("request");
  log.say("answer");
  log.error("mistake");
  EXPECT_EQ(out.str(), "answer\n");
  EXPECT_EQ(errors.str(), "quillmon-till: mistake\n");
}

TEST(LogTest, beginsLogLinesWithTheTimeWhenAsked) {
  std::ostringstream out;
  std::ostringstream errors;
  Log(out, errors, {false, true}).event("request");
  EXPECT_THAT(out.str(), testing::MatchesRegex("..:..:.. request\n"));
}

} // namespace
} // namespace till
