#include "RecordedTrace.h"
#include "model/IUPOSXmlAdapter.h"
#include "proxy/CIMContainer.h"
#include "proxy/EventSplitter.h"
#include "proxy/ProxyImpCommunicationLayer.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "proxy/TCPServer.h"
#include "proxy/testing/TestClient.h"
#include "win/testing/FakeConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

using com::orvex::CommunicationLayer;
using com::orvex::ProxyImpCommunicationLayer;
using com::orvex::ProxyImpXmlAdapter;
using model::DeviceEvent;
using model::InstanceList;
using proxy::CIMContainer;
using proxy::CIMDevice;
using proxy::EventSplitter;
using proxy::TCPServer;
using proxy_testing::TestClient;
using testing::IsSupersetOf;

namespace {

std::string eventDocument(const std::string& type, const std::string& id, const std::string& code,
                          const std::string& maker = "ORVEX") {
  return std::string(EventSplitter::kStartMarker) + "<event type=\"" + type +
         "\" classname=\"Scanner\" modifyInstanceCode=\"" + code +
         "\" provider=\"UPOS_Scanner\"><field name=\"DeviceID\" type=\"string\">" + id +
         "</field><field name=\"ManufacturerName\" type=\"string\">" + maker + "</field></event>";
}

class ThrowingAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  std::uint32_t toXML(std::string, std::string, std::string, std::string, std::string&) override {
    return 0;
  }
  std::uint32_t fromXML(std::string) override { return 0; }
  std::string sendRequest(std::string) override { return {}; }
  InstanceList getInstances() override { return {}; }
  DeviceEvent fromXMLEvent(std::string) override { throw std::runtime_error("out of memory"); }
};

class ProxyImpCommunicationLayerTest : public testing::Test {
protected:
  ProxyImpCommunicationLayerTest() {
    fake_configuration::clear();
    recorded_trace::clear();
    EXPECT_EQ(layer_->open(0), 0U);
    opened_ = recorded_trace::lines();
    client_ = std::make_unique<TestClient>(TCPServer::instance().port());
  }
  ~ProxyImpCommunicationLayerTest() override { EXPECT_EQ(layer_->close(), 0U); }

  DeviceEvent receive(const std::string& text) {
    client_->send(text);
    return layer_->receiveEvent(&adapter_);
  }
  static bool isCached(const std::string& id) {
    return CIMContainer::getInstance().find(CIMDevice("", id, {})) != nullptr;
  }

  std::unique_ptr<CommunicationLayer> layer_ = std::make_unique<ProxyImpCommunicationLayer>();
  ProxyImpXmlAdapter adapter_;
  std::vector<std::string> opened_;
  std::unique_ptr<TestClient> client_;
};

TEST_F(ProxyImpCommunicationLayerTest, NamesTheEventPortAndItsDefault) {
  EXPECT_EQ(layer_->getPortKey(), "provider.eventSocket.Port");
  EXPECT_EQ(layer_->getDefaultPort(), 42114U);
}

// The first test that opens the layer creates the poller.
TEST_F(ProxyImpCommunicationLayerTest, OpenStartsTheServer) {
  ASSERT_FALSE(opened_.empty());
  EXPECT_EQ(opened_.front(), "Starting listening in TCPServer");
}

TEST_F(ProxyImpCommunicationLayerTest, OpeningAPortInUseFails) {
  ProxyImpCommunicationLayer second;
  EXPECT_EQ(second.open(TCPServer::instance().port()), 0xFFFFFFFFU);
}

TEST_F(ProxyImpCommunicationLayerTest, EventsChangeTheCacheAndAreReturnedProcessed) {
  const DeviceEvent added = receive(eventDocument("addInstance", "L1", ""));
  EXPECT_EQ(added.type, "addInstance");
  EXPECT_EQ(added.deviceId, "L1");
  EXPECT_EQ(added.className, "Scanner");
  EXPECT_EQ(added.provider, "UPOS_Scanner");
  EXPECT_EQ(added.fields.size(), 2U);
  EXPECT_TRUE(isCached("L1"));
  EXPECT_EQ(receive(eventDocument("addInstance", "L1", "")).type, "NA");
  EXPECT_EQ(receive(eventDocument("modifyInstance", "L1", " ")).type, "NA");
  EXPECT_EQ(receive(eventDocument("modifyInstance", "L1", "7")).type, "modifyInstance");
  EXPECT_EQ(receive(eventDocument("delInstance", "L1", "")).type, "NA");
  EXPECT_EQ(receive(eventDocument("delInstance", "L1", "")).type, "delInstance");
  EXPECT_FALSE(isCached("L1"));
}

TEST_F(ProxyImpCommunicationLayerTest, AForeignMakersDeviceIsReturnedButNotCached) {
  const DeviceEvent event = receive(eventDocument("addInstance", "L2", "", "Somebody"));
  EXPECT_EQ(event.type, "NA");
  EXPECT_EQ(event.deviceId, "L2");
  EXPECT_FALSE(isCached("L2"));
}

TEST_F(ProxyImpCommunicationLayerTest, AnUnreadableDocumentIsReturnedAsNotToBePublished) {
  EXPECT_EQ(receive("<event type='addInstance'</event>").type, "NA");
  EXPECT_EQ(receive(eventDocument("delInstance", "unknown", "")).type, "NA");
}

TEST_F(ProxyImpCommunicationLayerTest, TracesTheDocumentBeforeItIsRead) {
  recorded_trace::clear();
  const std::string text = eventDocument("modifyInstance", "%s", "1");
  receive(text);
  std::vector<std::string> lines = recorded_trace::lines();
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("Adding client"); });
  EXPECT_EQ(lines.at(0), "Data received from socket: " + text);
  EXPECT_EQ(lines.at(1), "Event received: " + text);
  EXPECT_EQ(lines.at(2), "<<ProxyImpXmlAdapter>> fromXMLEvent(event='" + text + "')");
  EXPECT_EQ(lines.back(), "<<CIMDeviceUtil:processEvent>>: provider='UPOS_Scanner' type='NA' "
                          "returning");
}

TEST_F(ProxyImpCommunicationLayerTest, AFailingAdapterDoesNotBlockLaterDocuments) {
  client_->send(eventDocument("addInstance", "L3", ""));
  ThrowingAdapter failing;
  EXPECT_THROW(layer_->receiveEvent(&failing), std::runtime_error);
  EXPECT_EQ(receive(eventDocument("delInstance", "L3", "")).type, "NA");
}

TEST_F(ProxyImpCommunicationLayerTest, OpensAgainAfterClose) {
  EXPECT_EQ(layer_->close(), 0U);
  client_->waitUntilClosed();
  EXPECT_EQ(layer_->open(0), 0U);
  client_ = std::make_unique<TestClient>(TCPServer::instance().port());
  EXPECT_EQ(receive(eventDocument("modifyInstance", "unknown", "1")).type, "NA");
}

TEST_F(ProxyImpCommunicationLayerTest, CachedDevicesAnswerRequests) {
  receive(eventDocument("addInstance", "L4", ""));
  ProxyImpXmlAdapter request;
  std::string out;
  request.toXML("UPOS_LogicalDevice", "request", "getInstance", "L4", out);
  EXPECT_EQ(request.getInstances(), (InstanceList{{{"DeviceID", "string", "L4"},
                                                   {"ManufacturerName", "string", "ORVEX"}}}));
  EXPECT_EQ(receive(eventDocument("delInstance", "L4", "")).type, "delInstance");
}

} // namespace
