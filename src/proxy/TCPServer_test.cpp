#include "RecordedTrace.h"
#include "proxy/EventSplitter.h"
#include "proxy/SendToClients.h"
#include "proxy/TCPServer.h"
#include "proxy/testing/TestClient.h"
#include "win/testing/FakeConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using proxy::EventSplitter;
using proxy::PendingLimits;
using proxy::sendToClients;
using proxy::TCPServer;
using proxy_testing::TestClient;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string S(EventSplitter::kStartMarker);
const std::string E(EventSplitter::kEndMarker);

std::string document(const std::string& content) {
  return S + "<event>" + content + E;
}

/// The line with the address after `start` replaced by "%p".
std::string withoutAddress(std::string line, const std::string& start) {
  return line.starts_with(start) ? line.replace(start.size(), 16, "%p") : line;
}

std::vector<std::string> tracedLines() {
  std::vector<std::string> lines = recorded_trace::lines();
  for (std::string& line : lines) {
    line = withoutAddress(line, "Adding client ");
    line = withoutAddress(line, "Deleting client: ");
    line = withoutAddress(line, "Dropping client ");
  }
  return lines;
}

std::vector<std::string> linesStartingWith(const std::string& start) {
  std::vector<std::string> lines = tracedLines();
  std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(start); });
  return lines;
}

class TCPServerTest : public testing::Test {
protected:
  TCPServerTest() {
    fake_configuration::clear();
    do {
      recorded_trace::clear();
    } while (server_.startListening(portOfItsOwn()) != 0);
  }

  /// Outside the platform's range of ephemeral ports, so that no connection takes it while the
  /// server is stopped.
  static std::uint16_t portOfItsOwn() {
    static unsigned count = GetCurrentProcessId();
    return static_cast<std::uint16_t>(10'000 + ++count % 20'000);
  }

  std::string next() { return next(server_); }
  /// Waits until the server has accepted a connection.
  static void waitUntilAdded(std::size_t clients) { waitForLines("Adding client ", clients); }
  /// Disconnects; waits until the server has deleted the client, after which it closes the socket.
  static void leave(TestClient& client) {
    client.halfClose();
    client.waitUntilClosed();
  }

  /// A server with small limits.
  std::unique_ptr<TCPServer> limited(PendingLimits limits) {
    auto server = std::make_unique<TCPServer>(limits);
    EXPECT_EQ(server->startListening(0), 0U);
    return server;
  }
  static std::string next(TCPServer& server) {
    std::string taken = server.take();
    server.release();
    return taken;
  }
  /// Ignores errors: the server may have dropped the client.
  static void sendUntilDropped(TestClient& client, const std::string& text) {
    try {
      client.send(text);
    } catch (const std::exception&) {
    }
  }
  static void waitForLines(const std::string& start, std::size_t count) {
    while (linesStartingWith(start).size() < count) {
      Sleep(1);
    }
  }

  TCPServer server_;
};

TEST_F(TCPServerTest, ListensOnTheConfiguredAddressByDefaultTheLoopback) {
  EXPECT_NE(server_.port(), 0);
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("Starting listening in TCPServer"));
}

TEST_F(TCPServerTest, TakesADocument) {
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, ADocumentInThreePiecesIsOne) {
  TestClient client(server_.port());
  const std::string text = document("in pieces");
  client.send(text.substr(0, 20));
  client.send(text.substr(20, 50));
  client.send(text.substr(70));
  EXPECT_EQ(next(), text);
}

TEST_F(TCPServerTest, SeveralDocumentsInOneSendAreTakenInOrder) {
  TestClient client(server_.port());
  client.send(document("1") + document("2") + document("3"));
  EXPECT_EQ(next(), document("1"));
  EXPECT_EQ(next(), document("2"));
  EXPECT_EQ(next(), document("3"));
}

TEST_F(TCPServerTest, TextBeforeAStartMarkerIsTakenByItself) {
  TestClient client(server_.port());
  client.send("\r\n" + document("1"));
  EXPECT_EQ(next(), "\r\n");
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, WhatFollowsAZeroByteInOneReceiveIsLost) {
  TestClient client(server_.port());
  client.send(document("1") + std::string(1, '\0') + document("lost"));
  EXPECT_EQ(next(), document("1"));
  client.send(document("2"));
  EXPECT_EQ(next(), document("2"));
}

TEST_F(TCPServerTest, LongDocumentsSplitAnywhereAreTakenWhole) {
  TestClient client(server_.port());
  std::mt19937 random(5);
  std::vector<std::string> documents;
  std::string stream;
  for (int i = 0; i < 300; ++i) {
    documents.push_back(document(std::string(900 + random() % 300, 'x') + std::to_string(i)));
    stream += documents.back();
  }
  std::thread sending([&] { client.send(stream); });
  for (const std::string& expected : documents) {
    ASSERT_EQ(next(), expected);
  }
  sending.join();
}

TEST_F(TCPServerTest, DocumentsSentByteByByteAreTheSame) {
  TestClient client(server_.port());
  std::thread sending([&] {
    for (const char byte : document("1") + document("2")) {
      client.send(std::string(1, byte));
    }
  });
  EXPECT_EQ(next(), document("1"));
  EXPECT_EQ(next(), document("2"));
  sending.join();
}

TEST_F(TCPServerTest, TracesTheTextOfEachReceive) {
  TestClient client(server_.port());
  const std::string pieces[] = {document("1") + S.substr(0, 20), S.substr(20, 10),
                                S.substr(30) + "<event>2" + E};
  for (std::size_t i = 0; i < std::size(pieces); ++i) {
    client.send(pieces[i]); // separately: the previous piece has been received
    waitForLines("Data received from socket: ", i + 1);
    if (i == 0) {
      EXPECT_EQ(next(), document("1"));
    }
  }
  EXPECT_EQ(next(), document("2"));
  EXPECT_THAT(linesStartingWith("Data received"),
              ElementsAre("Data received from socket: " + pieces[0],
                          "Data received from socket: " + pieces[1],
                          "Data received from socket: " + pieces[2]));
}

TEST_F(TCPServerTest, ReceivesAtMost1023BytesAtOnce) {
  TestClient client(server_.port());
  client.send(document(std::string(3000, 'x')));
  EXPECT_EQ(next(), document(std::string(3000, 'x')));
  for (const std::string& line : linesStartingWith("Data received from socket: ")) {
    EXPECT_LE(line.size(), std::string("Data received from socket: ").size() + 1023);
  }
}

TEST_F(TCPServerTest, EachClientsStreamIsItsOwn) {
  TestClient one(server_.port());
  TestClient two(server_.port());
  one.send(S + "<event>on");
  two.send(document("two"));
  EXPECT_EQ(next(), document("two"));
  one.send("e" + E);
  EXPECT_EQ(next(), document("one"));
}

TEST_F(TCPServerTest, TracesAddingAndDeletingAClient) {
  {
    TestClient client(server_.port());
    client.send(document("%s%n"));
    EXPECT_EQ(next(), document("%s%n"));
    leave(client);
  }
  EXPECT_THAT(tracedLines(),
              ElementsAre("Starting listening in TCPServer", "Adding client %p",
                          "Data received from socket: " + document("%s%n"), "Deleting client: %p"));
}

TEST_F(TCPServerTest, AHalfClosedClientsDocumentsAreTakenFirst) {
  TestClient client(server_.port());
  client.send(document("1") + document("2") + S + "unfinished");
  client.halfClose();
  EXPECT_EQ(next(), document("1"));
  EXPECT_EQ(next(), document("2"));
  client.waitUntilClosed();
  EXPECT_THAT(linesStartingWith("Deleting client: "), testing::SizeIs(1));
}

TEST_F(TCPServerTest, AResetEndsThatClientOnly) {
  TestClient other(server_.port());
  {
    TestClient client(server_.port());
    client.send(S + "<event>");
    waitUntilAdded(2);
    client.reset();
  }
  other.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  EXPECT_EQ(server_.stop(), 0); // waits until both are deleted
  EXPECT_THAT(linesStartingWith("Deleting client: "), testing::SizeIs(2));
}

TEST_F(TCPServerTest, AStallingClientBlocksNoOther) {
  TestClient silent(server_.port());
  TestClient halfDone(server_.port());
  halfDone.send(S + "<event>");
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, AFloodingClientTakesTurnsWithTheOthers) {
  TestClient flooding(server_.port());
  TestClient modest(server_.port());
  std::thread flood([&] {
    try {
      const std::string many = document("flood") + document("flood") + document("flood");
      for (;;) {
        flooding.send(many);
      }
    } catch (const std::exception&) { // the server has stopped
    }
  });
  EXPECT_EQ(next(), document("flood"));
  int floods = 0;
  for (int i = 0; i < 50; ++i) {
    modest.send(document("modest"));
    while (next() != document("modest")) {
      ++floods;
    }
  }
  EXPECT_EQ(server_.stop(), 0);
  flood.join();
  EXPECT_LT(floods, 50 * 40);
}

TEST_F(TCPServerTest, AClientWhoseDocumentNeverEndsIsDropped) {
  const auto server = limited({.perConnection = 100'000, .total = 1'000'000});
  TestClient endless(server->port());
  TestClient client(server->port());
  sendUntilDropped(endless, std::string(110'000, 'x'));
  endless.waitUntilClosed();
  const auto dropped = linesStartingWith("Dropping");
  ASSERT_THAT(dropped, testing::SizeIs(1));
  EXPECT_THAT(dropped[0], StartsWith("Dropping client %p: document without an end after 100"));
  client.send(document("1"));
  EXPECT_EQ(next(*server), document("1"));
}

TEST_F(TCPServerTest, ADocumentJustWithinTheLimitIsTaken) {
  const auto server = limited({.perConnection = 100'000, .total = 100'000});
  TestClient client(server->port());
  const std::string text = document(std::string(100'000 - S.size() - 7 - E.size(), 'x'));
  ASSERT_EQ(text.size(), 100'000U);
  for (int i = 0; i < 3; ++i) {
    client.send(text);
    EXPECT_TRUE(next(*server) == text);
  }
}

TEST_F(TCPServerTest, BeyondTheTotalLimitTheLargestThatNeverDeliveredIsDropped) {
  const auto server = limited({.perConnection = 100'000, .total = 200'000});
  TestClient known(server->port());
  known.send(document("known"));
  EXPECT_EQ(next(*server), document("known"));
  known.send(S + std::string(90'000, 'x'));
  TestClient most(server->port());
  TestClient less(server->port());
  less.send(S + std::string(40'000, 'x'));
  sendUntilDropped(most, S + std::string(80'000, 'x'));
  most.waitUntilClosed();
  EXPECT_THAT(linesStartingWith("Dropping"),
              ElementsAre("Dropping client %p: the clients' unfinished documents are too long "
                          "together"));
  known.send(E);
  EXPECT_EQ(next(*server).size(), S.size() + 90'000 + E.size());
  less.send(E);
  EXPECT_EQ(next(*server).size(), S.size() + 40'000 + E.size());
}

TEST_F(TCPServerTest, UntakenDocumentsCountTowardsTheLimit) {
  const auto server = limited({.perConnection = 100'000, .total = 200'000});
  TestClient known(server->port());
  known.send(document("known"));
  EXPECT_EQ(next(*server), document("known"));
  std::list<TestClient> crowd;
  const std::string complete = document(std::string(90'000, 'x'));
  for (int i = 0; i < 3; ++i) {
    sendUntilDropped(crowd.emplace_back(server->port()), complete);
  }
  waitForLines("Deleting client: ", 1);
  EXPECT_THAT(linesStartingWith("Dropping"), testing::SizeIs(1));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(next(*server), complete);
  }
  known.send(document("known"));
  EXPECT_EQ(next(*server), document("known"));
}

TEST_F(TCPServerTest, BesideThreeHundredIdleClientsAnEventOf300KilobytesIsTaken) {
  std::list<TestClient> idle;
  for (std::size_t i = 1; i <= 300; ++i) {
    idle.emplace_back(server_.port());
    waitUntilAdded(i);
  }
  TestClient client(server_.port());
  const std::string large = document(std::string(300'000, 'x'));
  std::thread sending([&] { client.send(large + document("next")); });
  EXPECT_TRUE(next() == large);
  EXPECT_EQ(next(), document("next"));
  sending.join();
  EXPECT_THAT(linesStartingWith("Dropping"), IsEmpty());
}

TEST_F(TCPServerTest, AThousandClientsConnectSendAndDisconnect) {
  constexpr int kClients = 1000;
  for (int i = 0; i < kClients; ++i) {
    TestClient client(server_.port());
    client.send(document(std::to_string(i)));
    ASSERT_EQ(next(), document(std::to_string(i))); // taken, so the queue of clients stays short
  }
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_THAT(linesStartingWith("Adding client "), testing::SizeIs(kClients));
  EXPECT_THAT(linesStartingWith("Deleting client: "), testing::SizeIs(kClients));
}

TEST_F(TCPServerTest, AHundredThousandDocumentsArriveCompletelyAndInOrder) {
  constexpr int kDocuments = 100'000;
  TestClient client(server_.port());
  std::thread sending([&] {
    std::string many;
    for (int i = 0; i < kDocuments; ++i) {
      many += document(std::to_string(i));
      if (many.size() > 60'000 || i + 1 == kDocuments) {
        client.send(many);
        many.clear();
      }
    }
  });
  int inOrder = 0;
  while (inOrder < kDocuments && next() == document(std::to_string(inOrder))) {
    ++inOrder;
  }
  EXPECT_EQ(inOrder, kDocuments);
  sending.join();
}

TEST_F(TCPServerTest, AHundredClientsAreServedConcurrently) {
  std::list<TestClient> clients;
  for (int i = 0; i < 100; ++i) {
    clients.emplace_back(server_.port()).send(document(std::to_string(i)));
    EXPECT_EQ(next(), document(std::to_string(i)));
  }
  server_.sendToClients("update");
  for (TestClient& client : clients) {
    EXPECT_EQ(client.receive(6), "update");
    client.send(document("again"));
  }
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(next(), document("again"));
  }
}

TEST_F(TCPServerTest, SendsToEveryClientInOrderOfAcceptance) {
  TestClient one(server_.port());
  one.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  TestClient two(server_.port());
  two.send(document("2"));
  EXPECT_EQ(next(), document("2"));
  recorded_trace::clear();
  server_.sendToClients("%s <request/>");
  EXPECT_EQ(one.receive(13), "%s <request/>");
  EXPECT_EQ(two.receive(13), "%s <request/>");
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("Sending message to clients: %s <request/>",
                                                   "Sending message to clients: %s <request/>"));
}

TEST_F(TCPServerTest, SendsUpToTheFirstNul) {
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  server_.sendToClients(std::string("one\0lost", 8));
  server_.sendToClients("two");
  EXPECT_EQ(client.receive(6), "onetwo");
}

TEST_F(TCPServerTest, SendingWithoutClientsTracesNothing) {
  {
    TestClient client(server_.port());
    leave(client);
  }
  recorded_trace::clear();
  server_.sendToClients("text");
  EXPECT_THAT(recorded_trace::lines(), IsEmpty());
}

TEST_F(TCPServerTest, AClientThatDoesNotReadBlocksNoSender) {
  TestClient deaf(server_.port());
  TestClient client(server_.port());
  for (TestClient* connected : {&deaf, &client}) {
    connected->send(document("1"));
    EXPECT_EQ(next(), document("1"));
  }
  const std::string text(100'000, 'x');
  for (int i = 0; i < 200; ++i) {
    server_.sendToClients(text); // 20 MB: more than a connection buffers
  }
  client.send(document("2"));
  EXPECT_EQ(next(), document("2"));
  deaf.send(document("3"));
  EXPECT_EQ(next(), document("3"));
}

TEST_F(TCPServerTest, SendingWhileClientsConnectAndDisconnectIsSafe) {
  std::atomic<bool> done = false;
  std::thread sending([&] {
    while (!done) {
      server_.sendToClients("update");
    }
  });
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        TestClient client(server_.port());
        if (round % 2 == 0) {
          EXPECT_EQ(client.receive(6), "update");
        }
        client.reset();
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  done = true;
  sending.join();
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_EQ(linesStartingWith("Adding client ").size(),
            linesStartingWith("Deleting client: ").size());
}

TEST_F(TCPServerTest, StopClosesConnectedClients) {
  TestClient idle(server_.port());
  TestClient halfDone(server_.port());
  halfDone.send(S + "<event>");
  idle.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  waitUntilAdded(2);
  recorded_trace::clear();
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_EQ(server_.port(), 0);
  EXPECT_EQ(recorded_trace::lines().front(), "Stopping TCPServer");
  EXPECT_THAT(linesStartingWith("Deleting client: "), testing::SizeIs(2));
}

TEST_F(TCPServerTest, StopEndsClientsWhoseDocumentsNobodyTakes) {
  std::list<TestClient> clients;
  for (int i = 0; i < 5; ++i) {
    clients.emplace_back(server_.port()).send(document("not taken") + document("nor this"));
  }
  EXPECT_EQ(server_.stop(), 0); // waits for their threads
}

TEST_F(TCPServerTest, StopWithoutListeningDoesNothingButTrace) {
  server_.stop();
  recorded_trace::clear();
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_THAT(recorded_trace::lines(), ElementsAre("Stopping TCPServer"));
}

TEST_F(TCPServerTest, ListensAgainOnTheSamePortAfterAStop) {
  const std::uint16_t port = server_.port();
  TestClient before(port);
  before.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(server_.stop(), 0);
    EXPECT_EQ(server_.startListening(port), 0U);
    EXPECT_EQ(server_.port(), port);
    TestClient client(port);
    client.send(document("again"));
    EXPECT_EQ(next(), document("again"));
  }
}

TEST_F(TCPServerTest, AConsumerKeepsWaitingAcrossAStop) {
  auto taken = std::async(std::launch::async, [this] { return next(); });
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_EQ(taken.wait_for(50ms), std::future_status::timeout);
  EXPECT_EQ(server_.startListening(0), 0U);
  TestClient client(server_.port());
  client.send(document("after"));
  EXPECT_EQ(taken.get(), document("after"));
}

TEST_F(TCPServerTest, APortInUseIsReportedAndMayBeRetried) {
  TCPServer second;
  recorded_trace::clear();
  EXPECT_EQ(second.startListening(server_.port()), 0xFFFFFFFFU);
  EXPECT_EQ(second.port(), 0);
  EXPECT_EQ(second.startListening(server_.port()), 0xFFFFFFFFU);
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("Starting listening in TCPServer", "Starting listening in TCPServer"));
  const std::uint16_t port = server_.port();
  server_.stop();
  EXPECT_EQ(second.startListening(port), 0U);
  TestClient client(port);
  client.send(document("1"));
  EXPECT_EQ(second.take(), document("1"));
}

TEST_F(TCPServerTest, ListeningTwiceFailsAndTheFirstContinues) {
  EXPECT_EQ(server_.startListening(0), 0xFFFFFFFFU);
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, AForeignAddressIsReportedAndMayBeRetried) {
  TCPServer other;
  for (const char* address : {"not an address", "", "203.0.113.1", "300.1.1.1", "localhost"}) {
    fake_configuration::set("provider.eventSocket.IP", address);
    EXPECT_EQ(other.startListening(0), 0xFFFFFFFFU) << address;
  }
  fake_configuration::set("provider.eventSocket.IP", "0.0.0.0");
  EXPECT_EQ(other.startListening(0), 0U);
  TestClient client(other.port());
  client.send(document("1"));
  EXPECT_EQ(other.take(), document("1"));
}

TEST(TCPServer, IsOneForTheProcessAndReachedByThePlainFunction) {
  fake_configuration::clear();
  TCPServer& server = TCPServer::instance();
  EXPECT_EQ(&TCPServer::instance(), &server);
  ASSERT_EQ(server.startListening(0), 0U);
  TestClient client(server.port());
  client.send(document("1"));
  EXPECT_EQ(server.take(), document("1"));
  server.release();
  sendToClients("update");
  EXPECT_EQ(client.receive(6), "update");
  EXPECT_EQ(server.stop(), 0);
}

} // namespace
