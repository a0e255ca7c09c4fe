#include "PatchedImport.h"
#include "RecordedTrace.h"
#include "adapter/UPOSDatagramConnector.h"
#include "adapter/testing/TestDatagrams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using adapter::ByteBuffer;
using adapter::UPOSDatagramConnector;
using adapter_testing::freeDatagramPort;
using adapter_testing::portOf;
using adapter_testing::sendDatagrams;
using adapter_testing::StartedWinsock;
using adapter_testing::TestSocket;
using test_support::PatchedImport;
using testing::ElementsAre;

namespace {

int startsThatFail = 0;
std::vector<WORD> starts;
decltype(WSAStartup)* realStartup = nullptr;

int WSAAPI startupThatMayFail(WORD version, WSADATA* data) {
  starts.push_back(version);
  return startsThatFail-- > 0 ? WSASYSNOTREADY : realStartup(version, data);
}

int socketsMade = 0;
bool socketsFail = false;
decltype(socket)* realSocket = nullptr;

SOCKET WSAAPI countedSocket(int family, int type, int protocol) {
  ++socketsMade;
  return socketsFail ? INVALID_SOCKET : realSocket(family, type, protocol);
}

int socketsClosed = 0;
decltype(closesocket)* realClosesocket = nullptr;

int WSAAPI countedClosesocket(SOCKET socket) {
  ++socketsClosed;
  return realClosesocket(socket);
}

int receivesThatFail = 0;
decltype(recvfrom)* realRecvfrom = nullptr;

int WSAAPI recvfromThatMayFail(SOCKET socket, char* area, int size, int flags, sockaddr* from,
                               int* fromSize) {
  if (receivesThatFail-- > 0) {
    WSASetLastError(WSAENETDOWN);
    return SOCKET_ERROR;
  }
  return realRecvfrom(socket, area, size, flags, from, fromSize);
}

std::vector<DWORD> pauses;
bool unboundDuringPause = false;

void WINAPI recordedSleep(DWORD milliseconds) {
  pauses.push_back(milliseconds);
  if (unboundDuringPause) {
    UPOSDatagramConnector::datagramBound = 0;
  }
}

class UPOSDatagramConnectorTest : public testing::Test {
protected:
  UPOSDatagramConnectorTest() {
    UPOSDatagramConnector::datagramBound = 0;
    UPOSDatagramConnector::winsockStarted = 0;
    starts.clear();
    startsThatFail = 0;
    socketsMade = 0;
    socketsFail = false;
    receivesThatFail = 0;
    pauses.clear();
    unboundDuringPause = false;
  }
  ~UPOSDatagramConnectorTest() override { connector_.Close(); }

  void bindAnyPort() {
    ASSERT_EQ(connector_.Bind(0), 0U);
    port_ = portOf(connector_.socket);
  }
  std::string receive() {
    ByteBuffer out(1024, 1.5F);
    connector_.Receive(&out);
    return {out.text(), out.size()};
  }

  StartedWinsock winsock_;
  UPOSDatagramConnector connector_;
  std::uint16_t port_ = 0;
};

std::string framed(const std::string& message) {
  return '\x1B' + message + '\x08';
}

TEST_F(UPOSDatagramConnectorTest, StartsWithoutASocket) {
  EXPECT_EQ(connector_.socket, 0U);
  EXPECT_EQ(connector_.frame.count, 0);
  EXPECT_EQ(connector_.frame.position, 0);
}

TEST_F(UPOSDatagramConnectorTest, BindsThePortOnAllAddresses) {
  const std::uint16_t port = freeDatagramPort();
  EXPECT_EQ(connector_.Bind(port), 0U);
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 1U);
  EXPECT_EQ(connector_.local.sin_family, AF_INET);
  EXPECT_EQ(connector_.local.sin_port, htons(port));
  EXPECT_EQ(connector_.local.sin_addr.s_addr, 0U);
  sockaddr_in bound{};
  int size = sizeof bound;
  ASSERT_EQ(getsockname(connector_.socket, reinterpret_cast<sockaddr*>(&bound), &size), 0);
  EXPECT_EQ(bound.sin_port, htons(port));
  EXPECT_EQ(bound.sin_addr.s_addr, 0U);
}

TEST_F(UPOSDatagramConnectorTest, ASecondBindSucceedsWithoutANewSocket) {
  bindAnyPort();
  const PatchedImport<decltype(socket)> patch("socket", countedSocket);
  realSocket = patch.original();
  const SOCKET before = connector_.socket;
  EXPECT_EQ(connector_.Bind(port_), 0U);
  EXPECT_EQ(connector_.socket, before);
  // By design one per process: another connector gets the same result and no socket.
  UPOSDatagramConnector other;
  EXPECT_EQ(other.Bind(port_), 0U);
  EXPECT_EQ(other.socket, 0U);
  EXPECT_EQ(socketsMade, 0);
}

TEST_F(UPOSDatagramConnectorTest, APortInUseFailsAndMayBeRetried) {
  TestSocket holder(socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in anywhere{};
  anywhere.sin_family = AF_INET;
  ASSERT_EQ(bind(holder.get(), reinterpret_cast<const sockaddr*>(&anywhere), sizeof anywhere), 0);
  const std::uint16_t port = portOf(holder.get());
  const PatchedImport<decltype(closesocket)> patch("closesocket", countedClosesocket);
  realClosesocket = patch.original();
  socketsClosed = 0;
  EXPECT_EQ(connector_.Bind(port), 0xFFFFFFFFU);
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 0U);
  EXPECT_EQ(connector_.Bind(port), 0xFFFFFFFFU);
  EXPECT_EQ(socketsClosed, 2); // sockets that could not be bound are closed
  holder.close();
  EXPECT_EQ(connector_.Bind(port), 0U);
}

TEST_F(UPOSDatagramConnectorTest, WinsockIsStartedOnceAndAgainOnlyAfterAFailure) {
  const PatchedImport<decltype(WSAStartup)> patch("WSAStartup", startupThatMayFail);
  realStartup = patch.original();
  startsThatFail = 2;
  EXPECT_EQ(connector_.Bind(0), 0xFFFFFFFFU);
  EXPECT_EQ(connector_.Bind(0), 0xFFFFFFFFU);
  EXPECT_EQ(connector_.Bind(0), 0U);
  EXPECT_EQ(connector_.Close(), 0);
  EXPECT_EQ(connector_.Bind(0), 0U);
  EXPECT_THAT(starts, ElementsAre(0x0202, 0x0202, 0x0202));
}

TEST_F(UPOSDatagramConnectorTest, WithoutASocketBindFails) {
  const PatchedImport<decltype(socket)> patch("socket", countedSocket);
  realSocket = patch.original();
  socketsFail = true;
  EXPECT_EQ(connector_.Bind(0), 0xFFFFFFFFU);
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 0U);
  socketsFail = false;
  EXPECT_EQ(connector_.Bind(0), 0U);
}

TEST_F(UPOSDatagramConnectorTest, CloseReturnsThePlatformsResultAndFreesThePort) {
  EXPECT_EQ(connector_.Close(), 0);
  bindAnyPort();
  EXPECT_EQ(connector_.Close(), 0);
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 0U);
  EXPECT_EQ(connector_.Close(), 0);
  EXPECT_EQ(connector_.Bind(port_), 0U);
}

TEST_F(UPOSDatagramConnectorTest, AFailedCloseLeavesItBound) {
  bindAnyPort();
  UPOSDatagramConnector other; // has no socket of its own, so closing it fails
  EXPECT_EQ(other.Close(), SOCKET_ERROR);
  EXPECT_EQ(UPOSDatagramConnector::datagramBound, 1U);
}

TEST_F(UPOSDatagramConnectorTest, ReceivesNothingUnlessBound) {
  ByteBuffer out(0, 1.5F);
  out.appendString("as it was");
  connector_.Receive(&out);
  EXPECT_STREQ(out.text(), "as it was");
}

TEST_F(UPOSDatagramConnectorTest, TwoMessagesInOneDatagramAreReadOneByOne) {
  bindAnyPort();
  sendDatagrams(port_, {"garbage" + framed("one") + "garbage" + framed("two"), framed("three")});
  EXPECT_EQ(receive(), "one");
  EXPECT_EQ(receive(), "two");
  EXPECT_EQ(receive(), "three");
}

TEST_F(UPOSDatagramConnectorTest, AMessageSplitOverTwoDatagramsIsReadWhole) {
  bindAnyPort();
  sendDatagrams(port_, {"garbage\x1Bon", "e\x08\x1Bt", "w", "o\x08"});
  EXPECT_EQ(receive(), "one");
  EXPECT_EQ(receive(), "two");
}

TEST_F(UPOSDatagramConnectorTest, AnEmptyDatagramIsIgnored) {
  bindAnyPort();
  sendDatagrams(port_, {"", "", "\x1Bon", "", "e\x08"});
  EXPECT_EQ(receive(), "one");
}

TEST_F(UPOSDatagramConnectorTest, ADatagramOf1024BytesIsReadWhole) {
  bindAnyPort();
  const std::string message(1022, 'm');
  sendDatagrams(port_, {framed(message), framed("next")});
  EXPECT_EQ(receive(), message);
  EXPECT_EQ(receive(), "next");
}

TEST_F(UPOSDatagramConnectorTest, AnOversizeDatagramLosesOnlyItself) {
  bindAnyPort();
  const PatchedImport<decltype(Sleep)> patch("Sleep", recordedSleep);
  for (const std::size_t size : {1025U, 65507U}) {
    SCOPED_TRACE(size);
    const std::string oversize = framed(std::string(size - 2, 'x'));
    sendDatagrams(port_, {oversize, framed("one"), "\x1Btw", oversize, "o\x08"});
    EXPECT_EQ(receive(), "one");
    EXPECT_EQ(receive(), "two");
  }
  EXPECT_THAT(pauses, ElementsAre());
}

TEST_F(UPOSDatagramConnectorTest, AMessageMayHave64Mebibytes) {
  EXPECT_EQ(connector_.maxMessageSize, 64U * 1024 * 1024);
}

TEST_F(UPOSDatagramConnectorTest, AMessageUpToTheLimitIsReadWhole) {
  bindAnyPort();
  connector_.maxMessageSize = 3 * 1024;
  const std::string kilobyte(1024, 'x');
  sendDatagrams(port_, {"\x1B", kilobyte, kilobyte, kilobyte, "\x08" + framed("next")});
  EXPECT_EQ(receive(), kilobyte + kilobyte + kilobyte);
  EXPECT_EQ(receive(), "next");
}

TEST_F(UPOSDatagramConnectorTest, TheRestOfATooLongMessageIsSkipped) {
  bindAnyPort();
  connector_.maxMessageSize = 3 * 1024;
  recorded_trace::clear();
  const std::string kilobyte(1024, 'x');
  sendDatagrams(port_, {"\x1B" + kilobyte.substr(1), kilobyte, kilobyte, "more", "left over",
                        "end\x08", framed("next")});
  EXPECT_EQ(receive(), "next");
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("Dropping a message without an end mark after 3075 bytes"));
}

TEST_F(UPOSDatagramConnectorTest, ATooLongMessageWithoutAnEndDoesNotSwallowTheNextOne) {
  bindAnyPort();
  connector_.maxMessageSize = 1024;
  const std::string kilobyte(1024, 'x');
  for (int round = 0; round < 2; ++round) {
    sendDatagrams(port_, {"\x1B", kilobyte, "more", "left over", framed("next")});
    EXPECT_EQ(receive(), "next");
  }
}

TEST_F(UPOSDatagramConnectorTest, AFailingReceiveIsRetriedAfterASecond) {
  bindAnyPort();
  const PatchedImport<decltype(Sleep)> sleepPatch("Sleep", recordedSleep);
  const PatchedImport<decltype(recvfrom)> patch("recvfrom", recvfromThatMayFail);
  realRecvfrom = patch.original();
  receivesThatFail = 3;
  sendDatagrams(port_, {framed("one")});
  EXPECT_EQ(receive(), "one");
  EXPECT_THAT(pauses, ElementsAre(1000, 1000, 1000));
}

TEST_F(UPOSDatagramConnectorTest, EndsWhenTheSocketIsNoLongerBound) {
  bindAnyPort();
  const PatchedImport<decltype(Sleep)> sleepPatch("Sleep", recordedSleep);
  closesocket(connector_.socket);
  unboundDuringPause = true;
  EXPECT_EQ(receive(), "");
  EXPECT_THAT(pauses, ElementsAre(1000));
}

} // namespace
