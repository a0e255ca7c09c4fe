#include "RecordedTrace.h"
#include "cache/EventSplitter.h"
#include "cache/SendToClients.h"
#include "cache/TCPServer.h"
#include "cache/testing/FakeConfiguration.h"
#include "cache/testing/TestClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

const std::string S(EventSplitter::kStartMarker);
const std::string E(EventSplitter::kEndMarker);

std::string document(const std::string& content) {
  return S + "<event>" + content + E;
}

/// The line with "%p" in place of the address that follows `start`.
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

  /// Outside the ports that the platform gives to connections, any of which may take it while the
  /// server is stopped.
  static std::uint16_t portOfItsOwn() {
    static unsigned count = GetCurrentProcessId();
    return static_cast<std::uint16_t>(10'000 + ++count % 20'000);
  }

  std::string next() {
    std::string taken = server_.take();
    server_.release();
    return taken;
  }
  /// A connection is there before the server has accepted it.
  static void waitUntilAdded(std::size_t clients) {
    while (linesStartingWith("Adding client ").size() < clients) {
      Sleep(1);
    }
  }
  /// The server closes a client's connection after it has deleted the client.
  static void leave(TestClient& client) {
    client.halfClose();
    client.waitUntilClosed();
  }

  TCPServer server_;
};

TEST_F(TCPServerTest, ListensOnTheConfiguredAddressByDefaultTheMachinesOwn) {
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

TEST_F(TCPServerTest, LongDocumentsCutAnywhereByTheReceivesComeWhole) {
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

TEST_F(TCPServerTest, ByteByByteTheDocumentsAreTheSame) {
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

TEST_F(TCPServerTest, EachClientsStreamIsItsOwn) {
  TestClient one(server_.port());
  TestClient two(server_.port());
  one.send(S + "<event>on");
  two.send(document("two"));
  EXPECT_EQ(next(), document("two"));
  one.send("e" + E);
  EXPECT_EQ(next(), document("one"));
}

TEST_F(TCPServerTest, TracesAClientFromItsComingToItsGoing) {
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
  EXPECT_EQ(server_.stop(), 0); // waits for both to be deleted
  EXPECT_THAT(linesStartingWith("Deleting client: "), testing::SizeIs(2));
}

TEST_F(TCPServerTest, AStallingClientKeepsNobodyWaiting) {
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

TEST_F(TCPServerTest, ClientsKeptSixteenMegabytesEachOfDocumentsThatNeverEnd) {
  constexpr int kClients = 64;
  const std::size_t share = TCPServer::kMaxPending / (kClients + 1);
  const std::string fits = S + std::string(share - 2048, 'x');
  std::list<TestClient> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back(server_.port()).send(document("here"));
    EXPECT_EQ(next(), document("here"));
  }
  TestClient client(server_.port());
  for (TestClient& one : clients) {
    one.send(fits);
  }
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  EXPECT_THAT(linesStartingWith("Dropping"), IsEmpty());
  TestClient& greedy = clients.front();
  try {
    greedy.send(std::string(8192, 'x'));
  } catch (const std::exception&) { // dropped while it is still sending
  }
  greedy.waitUntilClosed();
  EXPECT_THAT(linesStartingWith("Dropping"), testing::SizeIs(1));
  clients.back().send(E);
  EXPECT_EQ(next().size(), fits.size() + E.size());
  client.send(document(std::string(TCPServer::kLeastPending, 'x')));
  EXPECT_EQ(next(), document(std::string(TCPServer::kLeastPending, 'x')));
}

TEST_F(TCPServerTest, ADocumentThatNeverEndsCostsItsClientTheConnection) {
  TestClient endless(server_.port());
  TestClient client(server_.port());
  try {
    const std::string part(1 << 20, 'x');
    for (int sent = 0; sent < 20; ++sent) {
      endless.send(part);
    }
  } catch (const std::exception&) { // dropped while it is still sending
  }
  endless.waitUntilClosed();
  const auto dropped = linesStartingWith("Dropping");
  ASSERT_THAT(dropped, testing::SizeIs(1));
  EXPECT_THAT(dropped[0], StartsWith("Dropping client %p: document without an end after 8"));
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, ADocumentJustWithinTheLimitIsTaken) {
  TestClient client(server_.port());
  const std::string text = document(std::string(TCPServer::kMaxPending - 100, 'x'));
  std::thread sending([&] { client.send(text); });
  EXPECT_TRUE(next() == text);
  sending.join();
}

TEST_F(TCPServerTest, AThousandClientsComeSendAndLeave) {
  constexpr int kClients = 1000;
  for (int i = 0; i < kClients; ++i) {
    TestClient client(server_.port());
    client.send(document(std::to_string(i)));
    ASSERT_EQ(next(), document(std::to_string(i))); // taken, so the queue of clients stays short
  }
  EXPECT_EQ(server_.stop(), 0);
  const auto added = linesStartingWith("Adding client ").size();
  EXPECT_GE(added, static_cast<std::size_t>(kClients)); // more where a connection was refused
  EXPECT_EQ(linesStartingWith("Deleting client: ").size(), added);
}

TEST_F(TCPServerTest, AHundredThousandDocumentsComeAllAndInOrder) {
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

TEST_F(TCPServerTest, AHundredClientsAtOnce) {
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

TEST_F(TCPServerTest, SendsUpToTheFirstZeroByteAndNothingBehind) {
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
  server_.sendToClients(std::string("one\0lost", 8));
  server_.sendToClients("two");
  EXPECT_EQ(client.receive(6), "onetwo");
}

TEST_F(TCPServerTest, SendingToNobodyDoesAndTracesNothing) {
  {
    TestClient client(server_.port());
    leave(client);
  }
  recorded_trace::clear();
  server_.sendToClients("text");
  EXPECT_THAT(recorded_trace::lines(), IsEmpty());
}

TEST_F(TCPServerTest, AClientThatDoesNotReadKeepsNoSenderWaiting) {
  TestClient deaf(server_.port());
  TestClient client(server_.port());
  for (TestClient* connected : {&deaf, &client}) {
    connected->send(document("1"));
    EXPECT_EQ(next(), document("1"));
  }
  const std::string text(100'000, 'x');
  for (int i = 0; i < 200; ++i) {
    server_.sendToClients(text); // 20 MB: more than any connection holds
  }
  client.send(document("2"));
  EXPECT_EQ(next(), document("2"));
  deaf.send(document("3"));
  EXPECT_EQ(next(), document("3"));
}

TEST_F(TCPServerTest, SendingWhileClientsComeAndGoIsSafe) {
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
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_FALSE(server_.put("nobody is listening"));
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

TEST_F(TCPServerTest, AConsumerThatWaitsOutlivesAStop) {
  auto taken = std::async(std::launch::async, [this] { return next(); });
  EXPECT_EQ(server_.stop(), 0);
  EXPECT_EQ(taken.wait_for(50ms), std::future_status::timeout);
  EXPECT_EQ(server_.startListening(0), 0U);
  TestClient client(server_.port());
  client.send(document("after"));
  EXPECT_EQ(taken.get(), document("after"));
}

TEST_F(TCPServerTest, ATakenPortIsReportedAndTriedAgain) {
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

TEST_F(TCPServerTest, ListeningTwiceIsRefusedAndTheFirstGoesOn) {
  EXPECT_EQ(server_.startListening(0), 0xFFFFFFFFU);
  TestClient client(server_.port());
  client.send(document("1"));
  EXPECT_EQ(next(), document("1"));
}

TEST_F(TCPServerTest, AnAddressThatIsNoneOfTheMachinesIsReportedAndTriedAgain) {
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
