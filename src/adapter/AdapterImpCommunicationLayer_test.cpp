#include "PatchedImport.h"
#include "adapter/AdapterImpCommunicationLayer.h"
#include "adapter/testing/TestDatagrams.h"
#include "model/IUPOSXmlAdapter.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using adapter::UPOSDatagramConnector;
using adapter_testing::freeDatagramPort;
using adapter_testing::portOf;
using adapter_testing::sendDatagrams;
using adapter_testing::StartedWinsock;
using adapter_testing::TestSocket;
using model::DeviceEvent;
using model::InstanceList;
using test_support::PatchedImport;

namespace {

/// Returns the message as the event's device id.
class EchoingXmlAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  std::uint32_t toXML(std::string, std::string, std::string, std::string, std::string&) override {
    return 0;
  }
  std::uint32_t fromXML(std::string) override { return 0; }
  std::string sendRequest(std::string) override { return {}; }
  InstanceList getInstances() override { return {}; }
  DeviceEvent fromXMLEvent(std::string message) override {
    DeviceEvent event;
    event.deviceId = std::move(message);
    return event;
  }
};

SOCKET lastSocket = INVALID_SOCKET;
decltype(socket)* realSocket = nullptr;

SOCKET WSAAPI observedSocket(int family, int type, int protocol) {
  return lastSocket = realSocket(family, type, protocol);
}

int socketsClosed = 0;
decltype(closesocket)* realClosesocket = nullptr;

int WSAAPI countedClosesocket(SOCKET socket) {
  ++socketsClosed;
  return realClosesocket(socket);
}

class AdapterImpCommunicationLayerTest : public testing::Test {
protected:
  AdapterImpCommunicationLayerTest() {
    UPOSDatagramConnector::datagramBound = 0;
    realSocket = socketPatch_.original();
    realClosesocket = closePatch_.original();
    lastSocket = INVALID_SOCKET;
    socketsClosed = 0;
  }

  std::string receive() { return layer_->receiveEvent(&adapter_).deviceId; }

  StartedWinsock winsock_;
  PatchedImport<decltype(socket)> socketPatch_{"socket", observedSocket};
  PatchedImport<decltype(closesocket)> closePatch_{"closesocket", countedClosesocket};
  EchoingXmlAdapter adapter_;
  std::unique_ptr<com::orvex::CommunicationLayer> layer_ =
      std::make_unique<com::orvex::AdapterImpCommunicationLayer>();
};

TEST_F(AdapterImpCommunicationLayerTest, NamesTheEventPort) {
  EXPECT_EQ(layer_->getPortKey(), "provider.eventSocket.Port");
  EXPECT_EQ(layer_->getDefaultPort(), 42114U);
}

TEST_F(AdapterImpCommunicationLayerTest, BeforeOpenItHoldsNoSocket) {
  EXPECT_EQ(layer_->close(), 0U);
  EXPECT_EQ(receive(), "");
  layer_.reset();
  EXPECT_EQ(socketsClosed, 0);
  EXPECT_EQ(lastSocket, INVALID_SOCKET);
}

TEST_F(AdapterImpCommunicationLayerTest, HandsEachMessageToTheAdapter) {
  const std::uint16_t port = freeDatagramPort();
  ASSERT_EQ(layer_->open(port), 0U);
  sendDatagrams(port, {"\x1B<event/>\x08\x1Bsecond\x08", std::string("\x1Bup to\0 this\x08", 13)});
  EXPECT_EQ(receive(), "<event/>");
  EXPECT_EQ(receive(), "second");
  EXPECT_EQ(receive(), "up to");
  EXPECT_EQ(layer_->close(), 0U);
}

TEST_F(AdapterImpCommunicationLayerTest, APortInUseFailsAndMayBeRetried) {
  const std::uint16_t port = freeDatagramPort();
  TestSocket holder(socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in everywhere{};
  everywhere.sin_family = AF_INET;
  everywhere.sin_port = htons(port);
  ASSERT_EQ(bind(holder.get(), reinterpret_cast<const sockaddr*>(&everywhere), sizeof everywhere),
            0);
  EXPECT_EQ(layer_->open(port), 0xFFFFFFFFU);
  EXPECT_EQ(receive(), ""); // nothing is bound: no wait
  EXPECT_EQ(layer_->close(), 0U);
  holder.close();
  ASSERT_EQ(layer_->open(port), 0U);
  sendDatagrams(port, {"\x1Bmessage\x08"});
  EXPECT_EQ(receive(), "message");
  EXPECT_EQ(layer_->close(), 0U);
}

// By design one socket per process: opening again succeeds and creates none.
TEST_F(AdapterImpCommunicationLayerTest, OpeningASecondTimeCreatesNoSocket) {
  ASSERT_EQ(layer_->open(0), 0U);
  const SOCKET first = std::exchange(lastSocket, INVALID_SOCKET);
  EXPECT_EQ(layer_->open(0), 0U);
  EXPECT_EQ(lastSocket, INVALID_SOCKET);
  EXPECT_EQ(layer_->close(), 0xFFFFFFFFU); // the second connector has none to close
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 1U);
  closesocket(first);
}

TEST_F(AdapterImpCommunicationLayerTest, DeletingItLeavesTheSocketOpen) {
  ASSERT_EQ(layer_->open(0), 0U);
  layer_.reset();
  EXPECT_EQ(socketsClosed, 0);
  EXPECT_NE(portOf(lastSocket), 0U);
  closesocket(lastSocket);
}

} // namespace
