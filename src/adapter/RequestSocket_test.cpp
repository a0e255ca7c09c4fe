#include "ConfigurationFile.h"
#include "PatchedImport.h"
#include "RecordedTrace.h"
#include "adapter/RequestBackOff.h"
#include "adapter/RequestSocket.h"
#include "adapter/UPOSConnector.h"
#include "adapter/testing/TestPeer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

using adapter::exchangeRequest;
using adapter::kFrameAreaSize;
using adapter::requestBackOff;
using adapter::TimeoutExpired;
using adapter::UPOSConnector;
using adapter_testing::boundSocket;
using adapter_testing::portOf;
using adapter_testing::receiveRest;
using adapter_testing::receiveUntil;
using adapter_testing::sendText;
using adapter_testing::StartedWinsock;
using adapter_testing::TestPeer;
using adapter_testing::TestSocket;
using test_support::ConfigurationFile;
using test_support::PatchedImport;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

const std::string kSkipped = "<<XMLAdapter>>: Just recently Java failed, I will skip it for now...";
const std::string kExpired = "<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again.";

// Replacements for imported functions. The peers of the tests run in the same process, so counting
// and changing calls is restricted to the exchange, by its thread or its 1024-byte area.

DWORD exchangeThread = 0;
std::vector<std::string> sends;
decltype(send)* realSend = nullptr;

int WSAAPI observedSend(SOCKET socket, const char* bytes, int size, int flags) {
  if (GetCurrentThreadId() == exchangeThread) {
    sends.emplace_back(bytes, static_cast<std::size_t>(size));
    EXPECT_EQ(flags, 0);
  }
  return realSend(socket, bytes, size, flags);
}

int WSAAPI refusedSend(SOCKET socket, const char* bytes, int size, int flags) {
  if (GetCurrentThreadId() != exchangeThread) {
    return realSend(socket, bytes, size, flags);
  }
  WSASetLastError(WSAENOBUFS);
  return SOCKET_ERROR;
}

int shutdowns = 0;
decltype(shutdown)* realShutdown = nullptr;

int WSAAPI observedShutdown(SOCKET socket, int how) {
  shutdowns += GetCurrentThreadId() == exchangeThread ? 1 : 0;
  return realShutdown(socket, how);
}

int pieceSize = 1024;
std::function<void()> afterReceiving;
decltype(recv)* realRecv = nullptr;

int WSAAPI observedRecv(SOCKET socket, char* area, int size, int flags) {
  if (size != kFrameAreaSize) {
    return realRecv(socket, area, size, flags);
  }
  const int received = realRecv(socket, area, std::min(size, pieceSize), flags);
  if (afterReceiving) {
    afterReceiving();
  }
  return received;
}

std::vector<WORD> starts;
bool startFails = false;
decltype(WSAStartup)* realStartup = nullptr;

int WSAAPI observedStartup(WORD version, WSADATA* data) {
  starts.push_back(version);
  return startFails ? WSASYSNOTREADY : realStartup(version, data);
}

int settingsRead = 0;

UINT WINAPI observedSetting(const char*, const char*, INT defaultValue, const char*) {
  ++settingsRead;
  return static_cast<UINT>(defaultValue);
}

int socketsAsked = 0;

SOCKET WSAAPI noSocket(int family, int type, int protocol) {
  ++socketsAsked;
  EXPECT_EQ(family, AF_INET);
  EXPECT_EQ(type, SOCK_STREAM);
  EXPECT_EQ(protocol, IPPROTO_TCP);
  WSASetLastError(WSAEMFILE);
  return INVALID_SOCKET;
}

HANDLE WINAPI noTimerQueue() {
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}

BOOL WINAPI noTimer(HANDLE*, HANDLE, WAITORTIMERCALLBACK, void*, DWORD, DWORD, ULONG) {
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return FALSE;
}

struct Timer {
  HANDLE queue;
  WAITORTIMERCALLBACK callback;
  void* context;
  DWORD due;
  DWORD period;
  ULONG flags;
};
std::vector<Timer> timers;

BOOL WINAPI recordedTimer(HANDLE* timer, HANDLE queue, WAITORTIMERCALLBACK callback, void* context,
                          DWORD due, DWORD period, ULONG flags) {
  timers.push_back({queue, callback, context, due, period, flags});
  *timer = reinterpret_cast<HANDLE>(timers.size());
  return TRUE;
}

class ExchangeRequest : public testing::Test {
protected:
  // Restores the process-wide state, so that the tests are independent.
  ExchangeRequest() {
    requestBackOff.serverOffline = 0;
    requestBackOff.retryTimeout = configuration::kDefaultRetryTimeout;
    requestBackOff.timerQueue = nullptr;
    requestBackOff.timer = nullptr;
    UPOSConnector::streamReady = 0;
    exchangeThread = GetCurrentThreadId();
    sends.clear();
    shutdowns = 0;
    starts.clear();
    timers.clear();
    startFails = false;
    socketsAsked = 0;
    settingsRead = 0;
    pieceSize = kFrameAreaSize;
    afterReceiving = nullptr;
    recorded_trace::clear();
    recorded_trace::setSwitchedOn(true);
  }
  ~ExchangeRequest() override {
    if (requestBackOff.timerQueue != nullptr) {
      DeleteTimerQueueEx(requestBackOff.timerQueue, INVALID_HANDLE_VALUE);
    }
    recorded_trace::setSwitchedOn(true);
  }

  static void configure(std::uint32_t port, const std::string& more = {}) {
    ConfigurationFile::write("upos.requestSocket.Port=" + std::to_string(port) + "\r\n" + more);
  }

  /// Exchanges with a device server that sends `answer` and closes.
  static std::string exchangeFor(const std::string& answer) {
    TestPeer peer([&answer](SOCKET connection) {
      receiveUntil(connection, '\x08');
      sendText(connection, answer);
      shutdown(connection, SD_SEND);
      receiveRest(connection);
    });
    configure(peer.port());
    return exchangeRequest("<request/>");
  }

  template <class Predicate>
  static bool waitUntil(Predicate predicate) {
    const ULONGLONG deadline = GetTickCount64() + 60000;
    while (!predicate()) {
      if (GetTickCount64() > deadline) {
        return false;
      }
      Sleep(2);
    }
    return true;
  }

  StartedWinsock winsock_;
  ConfigurationFile configuration_;
};

/// A port of the loopback that refuses connections.
class ClosedPort {
public:
  std::uint16_t port() const { return portOf(socket_.get()); }

private:
  TestSocket socket_{boundSocket(SOCK_STREAM)};
};

std::string framed(const std::string& message) {
  return '\x1B' + message + '\x08';
}

TEST_F(ExchangeRequest, SendsTheFramedRequestInOneSendAndNothingElse) {
  const PatchedImport<decltype(send)> patch("send", observedSend);
  realSend = patch.original();
  const std::string request = "<request>" + std::string(5000, 'r') + "</request>";
  std::string received;
  {
    TestPeer peer([&received](SOCKET connection) {
      received = receiveUntil(connection, '\x08');
      sendText(connection, framed("<response/>"));
      received += receiveRest(connection);
    });
    configure(peer.port());
    EXPECT_EQ(exchangeRequest(request), "<response/>");
    peer.stop();
  }
  EXPECT_EQ(received, framed(request));
  EXPECT_EQ(received.size(), request.size() + 2);
  EXPECT_THAT(sends, ElementsAre(framed(request)));
  EXPECT_EQ(UPOSConnector::streamReady, 1U);
}

TEST_F(ExchangeRequest, ARefusedSendIsIgnoredAndTheAnswerAwaited) {
  const PatchedImport<decltype(send)> patch("send", refusedSend);
  realSend = patch.original();
  const PatchedImport<decltype(shutdown)> shutdownPatch("shutdown", observedShutdown);
  realShutdown = shutdownPatch.original();
  std::string heard = "nothing yet";
  TestPeer peer([&heard](SOCKET connection) {
    sendText(connection, framed("<response/>"));
    heard = receiveRest(connection);
  });
  configure(peer.port());
  EXPECT_EQ(exchangeRequest("<request/>"), "<response/>");
  peer.stop();
  EXPECT_EQ(heard, "");
  EXPECT_EQ(shutdowns, 0);
}

TEST_F(ExchangeRequest, TracesEachStepOfTheFirstExchangeAndFewerLater) {
  TestPeer peer([](SOCKET connection) {
    receiveUntil(connection, '\x08');
    sendText(connection, framed("<response/>"));
    receiveRest(connection);
  });
  configure(peer.port());
  exchangeRequest("<request/>");
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
                  "<<configureTimers>>: Timeout is 10000 milliseconds.",
                  "<<configureTimers>>: Creating Timer queue...",
                  "<<configureTimers>>: CreateTimerQueue() succeeded!!",
                  "<<XMLAdapter>>: Creating socket", "<<UPOSConnector::Receive2()>> Calling clone",
                  "", "<<UPOSConnector::Receive2()>> Calling clone OUT_MARK", "<response/>",
                  "<<XMLAdapter>>: Receiving data", "<response/>"));
  recorded_trace::clear();
  exchangeRequest("<request/>");
  EXPECT_THAT(recorded_trace::lines(),
              ElementsAre("<<XMLAdapter>>: Creating socket",
                          "<<UPOSConnector::Receive2()>> Calling clone", "",
                          "<<UPOSConnector::Receive2()>> Calling clone OUT_MARK", "<response/>",
                          "<<XMLAdapter>>: Receiving data", "<response/>"));
}

TEST_F(ExchangeRequest, ARequestEndsAtItsFirstZeroByte) {
  std::string received;
  TestPeer peer([&received](SOCKET connection) {
    received = receiveUntil(connection, '\x08');
    sendText(connection, framed("ok"));
    received += receiveRest(connection);
  });
  configure(peer.port());
  EXPECT_EQ(exchangeRequest(std::string("ab\0cd", 5)), "ok");
  peer.stop();
  EXPECT_EQ(received, framed("ab"));
}

TEST_F(ExchangeRequest, AnswersOfAllSizesArriveWhole) {
  recorded_trace::setSwitchedOn(false);
  for (const std::size_t size :
       {0U, 1U, 1021U, 1022U, 1023U, 1024U, 1025U, 1026U, 2048U, 1048576U}) {
    SCOPED_TRACE(size);
    const std::string answer(size, 'a');
    EXPECT_TRUE(exchangeFor(framed(answer)) == answer);
  }
}

TEST_F(ExchangeRequest, OnlyTheBytesBetweenTheMarksAreTheAnswer) {
  EXPECT_EQ(exchangeFor("garbage\x08" + framed("<response/>") + framed("another")), "<response/>");
}

TEST_F(ExchangeRequest, AnAnswerEndsAtItsFirstZeroByte) {
  EXPECT_EQ(exchangeFor(framed(std::string("ab\0cd", 5))), "ab");
}

TEST_F(ExchangeRequest, AnAnswerInPiecesIsJoined) {
  const PatchedImport<decltype(recv)> patch("recv", observedRecv);
  realRecv = patch.original();
  const std::string answer = "<response>" + std::string(100, 'x') + "</response>";
  for (const int size : {1, 2, 3, 7, 64}) {
    SCOPED_TRACE(size);
    pieceSize = size;
    EXPECT_EQ(exchangeFor("garbage" + framed(answer) + "rest"), answer);
  }
}

TEST_F(ExchangeRequest, APeerThatClosesOrHalfClosesEndsTheAnswer) {
  struct Row {
    const char* label;
    const char* sent;
    bool half;
    const char* expected;
  };
  const Row rows[] = {
      {"closed at once", "", false, ""},
      {"half-closed at once", "", true, ""},
      {"closed after garbage", "garbage", false, ""},
      {"closed in the message", "garbage\x1B<resp", false, "<resp"},
      {"half-closed in the message", "garbage\x1B<resp", true, "<resp"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    TestPeer peer([&row](SOCKET connection) {
      receiveUntil(connection, '\x08');
      sendText(connection, row.sent);
      if (row.half) {
        shutdown(connection, SD_SEND);
        receiveRest(connection); // ends because the exchange closes its side
      }
    });
    configure(peer.port());
    EXPECT_EQ(exchangeRequest("<request/>"), row.expected);
    EXPECT_EQ(requestBackOff.serverOffline, 0); // a bad answer is not a failed connect
  }
}

TEST_F(ExchangeRequest, APeerThatResetsEndsTheAnswer) {
  const PatchedImport<decltype(recv)> patch("recv", observedRecv);
  realRecv = patch.original();
  const win::Handle collected(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  afterReceiving = [&collected] { SetEvent(collected.get()); };
  TestPeer peer([&collected](SOCKET connection) {
    receiveUntil(connection, '\x08');
    sendText(connection, "\x1B<resp");
    WaitForSingleObject(collected.get(), INFINITE);
    const linger reset{1, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&reset),
               sizeof reset);
  });
  configure(peer.port());
  EXPECT_EQ(exchangeRequest("<request/>"), "<resp");
}

TEST_F(ExchangeRequest, PercentSignsInAnAnswerAreHarmless) {
  EXPECT_EQ(exchangeFor(framed("%s%n%d 100%% %")), "%s%n%d 100%% %");
  // Traced as the format: only "%%" changes.
  EXPECT_EQ(recorded_trace::lines().back(), "%s%n%d 100% %");
}

TEST_F(ExchangeRequest, ThePortIsReadAtEachExchangeAndTruncatedTo16Bits) {
  const auto answering = [](const char* answer) {
    return [answer](SOCKET connection) {
      receiveUntil(connection, '\x08');
      sendText(connection, framed(answer));
      receiveRest(connection);
    };
  };
  TestPeer one(answering("one"));
  TestPeer two(answering("two"));
  configure(one.port());
  EXPECT_EQ(exchangeRequest("<request/>"), "one");
  configure(two.port() + 65536U);
  EXPECT_EQ(exchangeRequest("<request/>"), "two");
}

TEST_F(ExchangeRequest, WinsockIsStartedForEachExchangeAndItsResultIgnored) {
  const PatchedImport<decltype(WSAStartup)> patch("WSAStartup", observedStartup);
  realStartup = patch.original();
  EXPECT_EQ(exchangeFor(framed("one")), "one");
  startFails = true;
  EXPECT_EQ(exchangeFor(framed("two")), "two");
  EXPECT_THAT(starts, ElementsAre(0x0101, 0x0101));
}

TEST_F(ExchangeRequest, ConcurrentExchangesHaveTheirOwnConnections) {
  TestPeer peer([](SOCKET connection) {
    sendText(connection, "\x1B"
                         "to:");
    sendText(connection, receiveUntil(connection, '\x08').substr(1));
    receiveRest(connection);
  });
  configure(peer.port());
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int number = 0; number < 10; ++number) {
        const std::string request = std::to_string(thread) + "/" + std::to_string(number);
        EXPECT_EQ(exchangeRequest(request), "to:" + request);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(peer.connections(), 40);
  const auto lines = recorded_trace::lines();
  EXPECT_EQ(
      std::count(lines.begin(), lines.end(), "<<configureTimers>>: CreateTimerQueue() succeeded!!"),
      1);
}

TEST_F(ExchangeRequest, AnExceptionLeavesNoSocketBehind) {
  const PatchedImport<decltype(recv)> patch("recv", observedRecv);
  realRecv = patch.original();
  afterReceiving = [] { throw std::bad_alloc(); };
  bool closed = false;
  TestPeer peer([&closed](SOCKET connection) {
    receiveUntil(connection, '\x08');
    sendText(connection, "\x1B<resp");
    receiveRest(connection);
    closed = true;
  });
  configure(peer.port());
  EXPECT_THROW(exchangeRequest("<request/>"), std::bad_alloc);
  peer.stop();
  EXPECT_TRUE(closed);
}

TEST_F(ExchangeRequest, AFailedConnectStartsABackOffInWhichRequestsAreSkipped) {
  const ClosedPort closed;
  configure(closed.port());
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
                  "<<configureTimers>>: Timeout is 10000 milliseconds.",
                  "<<configureTimers>>: Creating Timer queue...",
                  "<<configureTimers>>: CreateTimerQueue() succeeded!!",
                  "<<XMLAdapter>>: Creating socket",
                  "<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: 10061)... Will "
                  "reject requests for the next 10000 milliseconds...",
                  "<<signalServerIsOfflineFor5Seconds>>: Java server is down, will avoid attempts "
                  "for 10000 milliseconds..."));
  EXPECT_EQ(requestBackOff.serverOffline, 1);

  recorded_trace::clear();
  const PatchedImport<decltype(socket)> socketPatch("socket", noSocket);
  const PatchedImport<decltype(WSAStartup)> startPatch("WSAStartup", observedStartup);
  const PatchedImport<decltype(GetPrivateProfileIntA)> settingPatch("GetPrivateProfileIntA",
                                                                    observedSetting);
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_THAT(recorded_trace::lines(), ElementsAre(kSkipped, kSkipped));
  EXPECT_EQ(socketsAsked, 0);
  EXPECT_EQ(settingsRead, 0);
  EXPECT_THAT(starts, ElementsAre());
}

TEST_F(ExchangeRequest, AfterTheBackOffTheServerIsTriedAgain) {
  const ClosedPort closed;
  configure(closed.port(), "upos.requestSocket.retryTimeout=200\r\n");
  exchangeRequest("<request/>");
  ASSERT_EQ(requestBackOff.serverOffline, 1);
  ASSERT_TRUE(waitUntil([] { return requestBackOff.serverOffline == 0; }));
  EXPECT_EQ(recorded_trace::lines().back(), kExpired);
  EXPECT_EQ(exchangeFor(framed("<response/>")), "<response/>");
  EXPECT_THAT(recorded_trace::lines(), Not(Contains(kSkipped)));
  // The timer fires once only.
  const auto lines = recorded_trace::lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kExpired), 1);
}

TEST_F(ExchangeRequest, TheBackOffTimeIsReadOnceAtTheFirstExchange) {
  const ClosedPort closed;
  configure(closed.port(), "upos.requestSocket.retryTimeout=3000\r\n");
  const ULONGLONG begin = GetTickCount64();
  exchangeRequest("<request/>");
  configure(closed.port(), "upos.requestSocket.retryTimeout=50\r\n");
  ASSERT_TRUE(waitUntil([] { return requestBackOff.serverOffline == 0; }));
  EXPECT_GE(GetTickCount64() - begin, 2900U);
  recorded_trace::clear();
  exchangeRequest("<request/>");
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("<<XMLAdapter>>: Creating socket",
                  "<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: 10061)... Will "
                  "reject requests for the next 3000 milliseconds...",
                  "<<signalServerIsOfflineFor5Seconds>>: Java server is down, will avoid attempts "
                  "for 3000 milliseconds..."));
}

TEST_F(ExchangeRequest, EachFailedConnectStartsOneTimerThatFiresOnce) {
  const PatchedImport<decltype(CreateTimerQueueTimer)> patch("CreateTimerQueueTimer",
                                                             recordedTimer);
  const ClosedPort closed;
  for (const char* const configured : {"1", "10000", "soon", "-1", ""}) {
    SCOPED_TRACE(configured);
    timers.clear();
    requestBackOff.serverOffline = 0;
    if (requestBackOff.timerQueue != nullptr) {
      DeleteTimerQueueEx(requestBackOff.timerQueue, INVALID_HANDLE_VALUE);
      requestBackOff.timerQueue = nullptr;
    }
    configure(closed.port(), std::string("upos.requestSocket.retryTimeout=") + configured + "\r\n");
    const auto expected = configuration::readInt("upos.requestSocket.retryTimeout", 10000);
    exchangeRequest("<request/>");
    ASSERT_EQ(timers.size(), 1U);
    EXPECT_EQ(timers[0].queue, requestBackOff.timerQueue);
    EXPECT_EQ(timers[0].callback, &TimeoutExpired);
    EXPECT_EQ(timers[0].context, nullptr);
    EXPECT_EQ(timers[0].due, expected);
    EXPECT_EQ(timers[0].period, 0U);
    EXPECT_EQ(timers[0].flags, 0U);
    EXPECT_EQ(requestBackOff.timer, reinterpret_cast<HANDLE>(1));
  }
}

TEST_F(ExchangeRequest, WithoutATimerThereIsNoBackOff) {
  const PatchedImport<decltype(CreateTimerQueueTimer)> patch("CreateTimerQueueTimer", noTimer);
  const ClosedPort closed;
  configure(closed.port());
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  // The line end belongs to the message, kept.
  EXPECT_EQ(recorded_trace::lines().back(),
            "<<signalServerIsOfflineFor5Seconds>>: CreateTimerQueueTimer failed (8)\n");
  EXPECT_EQ(requestBackOff.serverOffline, 0);
  EXPECT_EQ(requestBackOff.timer, nullptr);
}

TEST_F(ExchangeRequest, WithoutATimerQueueTheNextExchangeTriesAgain) {
  {
    const PatchedImport<decltype(CreateTimerQueue)> patch("CreateTimerQueue", noTimerQueue);
    EXPECT_EQ(exchangeFor(framed("<response/>")), "<response/>");
    const auto lines = recorded_trace::lines();
    ASSERT_GT(lines.size(), 4U);
    EXPECT_EQ(lines[2], "<<configureTimers>>: Creating Timer queue...");
    EXPECT_EQ(lines[3], "<<configureTimers>>: CreateTimerQueue() failed (8)");
    EXPECT_EQ(lines[4], "<<XMLAdapter>>: Creating socket");
  }
  recorded_trace::clear();
  const ClosedPort closed;
  configure(closed.port(), "upos.requestSocket.retryTimeout=60000\r\n");
  exchangeRequest("<request/>");
  const auto lines = recorded_trace::lines();
  ASSERT_GT(lines.size(), 4U);
  EXPECT_EQ(lines[1], "<<configureTimers>>: Timeout is 60000 milliseconds.");
  EXPECT_EQ(lines[3], "<<configureTimers>>: CreateTimerQueue() succeeded!!");
}

// Kept: the message announces a back-off that is not started, and closing no socket fails.
TEST_F(ExchangeRequest, ASocketThatCannotBeCreatedIsTracedAndStartsNoBackOff) {
  const PatchedImport<decltype(socket)> patch("socket", noSocket);
  ConfigurationFile::write("upos.requestSocket.retryTimeout=4000\r\n");
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_THAT(
      recorded_trace::lines(),
      ElementsAre("<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
                  "<<configureTimers>>: Timeout is 4000 milliseconds.",
                  "<<configureTimers>>: Creating Timer queue...",
                  "<<configureTimers>>: CreateTimerQueue() succeeded!!",
                  "<<XMLAdapter>>: Creating socket",
                  "<<XMLAdapter>>: Unable to create socket! aborting (Reason: 10024)... Will "
                  "reject requests for the next 4000 milliseconds...",
                  "<<XMLAdapter>>: closesocket() failed (Reason: 10038)"));
  EXPECT_EQ(requestBackOff.serverOffline, 0);
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_EQ(socketsAsked, 2);
}

TEST_F(ExchangeRequest, ThePortIs42115WithoutAConfiguration) {
  decltype(connect)* const refusing = [](SOCKET, const sockaddr* address, int size) -> int {
    const auto* server = reinterpret_cast<const sockaddr_in*>(address);
    EXPECT_EQ(size, 16);
    EXPECT_EQ(server->sin_family, AF_INET);
    EXPECT_EQ(server->sin_port, htons(42115));
    EXPECT_EQ(server->sin_addr.s_addr, inet_addr("127.0.0.1"));
    WSASetLastError(WSAETIMEDOUT);
    return SOCKET_ERROR;
  };
  const PatchedImport<decltype(connect)> patch("connect", refusing);
  EXPECT_EQ(exchangeRequest("<request/>"), "");
  EXPECT_THAT(recorded_trace::lines(),
              Contains("<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: 10060)... "
                       "Will reject requests for the next 10000 milliseconds..."));
}

TEST_F(ExchangeRequest, APortThatIsNoNumberIsAFailedConnect) {
  for (const char* const port : {"none", "0", "65536", "-65536"}) {
    SCOPED_TRACE(port);
    requestBackOff.serverOffline = 0;
    ConfigurationFile::write(std::string("upos.requestSocket.Port=") + port + "\r\n");
    const auto read = configuration::readInt("upos.requestSocket.Port", 42115);
    ASSERT_EQ(read % 65536, 0U); // never another device server
    EXPECT_EQ(exchangeRequest("<request/>"), "");
    EXPECT_EQ(requestBackOff.serverOffline, 1);
  }
}

TEST_F(ExchangeRequest, TheTimersCallbackEndsTheBackOff) {
  requestBackOff.serverOffline = 1;
  TimeoutExpired(nullptr, TRUE);
  EXPECT_EQ(requestBackOff.serverOffline, 0);
  EXPECT_THAT(recorded_trace::lines(), ElementsAre(kExpired));
}

} // namespace
