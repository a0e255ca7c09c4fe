#include "CountedAllocations.h"
#include "PatchedImport.h"
#include "RecordedTrace.h"
#include "adapter/UPOSConnector.h"
#include "adapter/testing/TestPeer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

using adapter::ByteBuffer;
using adapter::UPOSConnector;
using adapter_testing::boundSocket;
using adapter_testing::portOf;
using adapter_testing::sendText;
using adapter_testing::StartedWinsock;
using adapter_testing::TestSocket;
using test_support::countedAllocations;
using test_support::loopback;
using test_support::PatchedImport;
using testing::ElementsAre;

namespace {

int pieceSize = 1024;
decltype(recv)* realRecv = nullptr;

int WSAAPI recvInPieces(SOCKET socket, char* area, int size, int flags) {
  return realRecv(socket, area, size < pieceSize ? size : pieceSize, flags);
}

class UPOSConnectorTest : public testing::Test {
protected:
  UPOSConnectorTest() {
    const TestSocket listener(boundSocket(SOCK_STREAM));
    listen(listener.get(), 1);
    const sockaddr_in address = loopback(portOf(listener.get()));
    connector_.socket = socket(AF_INET, SOCK_STREAM, 0);
    connect(connector_.socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    peer_ = accept(listener.get(), nullptr, nullptr);
    connector_.ready = 1;
    UPOSConnector::streamReady = 1;
    recorded_trace::clear();
    recorded_trace::setSwitchedOn(true);
  }
  ~UPOSConnectorTest() override {
    closesocket(connector_.socket);
    closesocket(peer_);
    recorded_trace::setSwitchedOn(true);
  }

  StartedWinsock winsock_;
  UPOSConnector connector_;
  SOCKET peer_ = INVALID_SOCKET;
  ByteBuffer out_{1024, 1.5F};
};

TEST_F(UPOSConnectorTest, StartsWithNothingReceivedAndNotReady) {
  UPOSConnector fresh;
  EXPECT_EQ(fresh.ready, 0);
  EXPECT_EQ(fresh.frame.count, 0);
  EXPECT_EQ(fresh.frame.position, 0);
}

TEST_F(UPOSConnectorTest, ReadsFromTheConnectedSocket) {
  sendText(peer_, "\x1B"
                  "abc\x08");
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_EQ(connector_.recvSocket, connector_.socket);
  EXPECT_STREQ(out_.text(), "abc");
}

TEST_F(UPOSConnectorTest, ReadsNothingBeforeARequestWasSent) {
  sendText(peer_, "\x1B"
                  "abc\x08");
  out_.appendString("as it was");
  connector_.ready = 0;
  EXPECT_EQ(connector_.Receive(&out_), 0);
  connector_.ready = 1;
  UPOSConnector::streamReady = 0;
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_STREQ(out_.text(), "as it was");
  EXPECT_THAT(recorded_trace::lines(), ElementsAre());
}

TEST_F(UPOSConnectorTest, TracesACopyBeforeEachReceiveAndAtTheEndMark) {
  const PatchedImport<decltype(recv)> patch("recv", recvInPieces);
  realRecv = patch.original();
  pieceSize = 3;
  sendText(peer_, "\x1B"
                  "abcde%s\x08");
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_STREQ(out_.text(), "abcde%s");
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("<<UPOSConnector::Receive2()>> Calling clone", "",
                          "<<UPOSConnector::Receive2()>> Calling clone", "ab",
                          "<<UPOSConnector::Receive2()>> Calling clone", "abcde",
                          "<<UPOSConnector::Receive2()>> Calling clone OUT_MARK", "abcde%s"));
}

TEST_F(UPOSConnectorTest, MakesNoCopiesWhileTheTraceIsOff) {
  const PatchedImport<decltype(recv)> patch("recv", recvInPieces);
  realRecv = patch.original();
  pieceSize = 1;
  recorded_trace::setSwitchedOn(false);
  sendText(peer_, "\x1B"
                  "abcdefgh\x08");
  const int before = countedAllocations();
  connector_.Receive(&out_);
  EXPECT_EQ(countedAllocations(), before);
  EXPECT_STREQ(out_.text(), "abcdefgh");
  EXPECT_THAT(recorded_trace::lines(), ElementsAre());
}

TEST_F(UPOSConnectorTest, EndsWithWhatWasCollectedWhenThePeerCloses) {
  sendText(peer_, "garbage\x1B"
                  "abc");
  closesocket(std::exchange(peer_, INVALID_SOCKET));
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_STREQ(out_.text(), "abc");
  EXPECT_EQ(recorded_trace::lines().back(), "abc");
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_STREQ(out_.text(), "abc");
}

TEST_F(UPOSConnectorTest, EndsWhenTheReceiveFails) {
  closesocket(connector_.socket);
  EXPECT_EQ(connector_.Receive(&out_), 0);
  EXPECT_STREQ(out_.text(), "");
}

} // namespace
