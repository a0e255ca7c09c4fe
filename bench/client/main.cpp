// bench_client REQUEST_PORT: the WMI client and the device server in one process, so that one clock
// measures requests and events from end to end. Reads commands, one a line, and answers each with
// one line: the microseconds it took, "ok", or "failed" with the reason.
//
//   devices N               enumerations are answered with N devices from now on
//   enumerate N TIMES       that many enumerations, each of which must bring N instances
//   refused TIMES           that many enumerations, each of which must fail
//   until N                 enumerations until one brings N instances
//   get ID TIMES            that many retrievals
//   clients K ROUNDS N      K threads with ROUNDS enumerations of N instances each
//   watch udp|tcp PORT      subscribes to events and gets ready to send them to that port
//   events TYPE FIRST COUNT sends COUNT events, of devices FIRST, FIRST + 1 ..., 100 of them under
//                           way at a time, and waits for their WMI events
//   latency TYPE COUNT      sends COUNT events, each when the one before has arrived; the
//                           microseconds of each

#include "Commands.h"
#include "DeviceServer.h"
#include "Documents.h"
#include "WmiClient.h"

#include <atomic>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace bench {
namespace {

using test_support::WmiClient;

template <class Action>
std::string timed(const Action& action, std::size_t times = 1) {
  return std::to_string(microseconds(times, action));
}

void require(bool condition, const char* reason) {
  if (!condition) {
    throw std::runtime_error(reason);
  }
}

class Bench {
public:
  explicit Bench(std::uint16_t requestPort) : server_(requestPort) {}

  std::string run(const std::string& command, std::istringstream& words) {
    if (command == "devices") {
      server_.setCount(number(words));
      return "ok";
    }
    if (command == "enumerate") {
      const std::size_t count = number(words);
      return timed([&] { require(enumerate() == count, "a different number of instances"); },
                   number(words));
    }
    if (command == "refused") {
      return timed([&] { require(!enumerates(), "an enumeration that succeeded"); }, number(words));
    }
    if (command == "until") {
      const std::size_t count = number(words);
      return timed([&] { waitFor(count); });
    }
    if (command == "get") {
      const std::string id = word(words);
      const std::wstring path =
          class_ + L".DeviceID=\"" + std::wstring(id.begin(), id.end()) + L"\"";
      return timed([&] { wmi_.get(path); }, number(words));
    }
    if (command == "clients") {
      const std::size_t clients = number(words);
      const std::size_t rounds = number(words);
      const std::size_t count = number(words);
      return timed([&] { enumerateFrom(clients, rounds, count); });
    }
    if (command == "watch") {
      const std::string kind = word(words);
      events_ = wmi_.events(L"SELECT * FROM QuillmonEvent");
      channel_.emplace(static_cast<std::uint16_t>(number(words)), kind == "tcp");
      return "ok";
    }
    if (command == "events") {
      const std::string type = word(words);
      const std::size_t first = number(words);
      const std::size_t count = number(words);
      return timed([&] { sendEvents(type, first, count); });
    }
    if (command == "latency") {
      const std::string type = word(words);
      const std::size_t count = number(words);
      std::string all;
      for (std::size_t i = 0; i < count; ++i) {
        all += timed([&] { sendEvents(type, i, 1); }) + " ";
      }
      return all;
    }
    throw std::runtime_error("unknown command");
  }

private:
  /// The number of instances. Any thread.
  std::size_t enumerate() const {
    const WmiClient::Objects objects = wmi_.instances(class_);
    std::size_t count = 0;
    while (WmiClient::next(objects)) {
      ++count;
    }
    return count;
  }

  bool enumerates() {
    try {
      enumerate();
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  void waitFor(std::size_t count) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::minutes(1);
    for (;;) {
      try {
        if (enumerate() == count) {
          return;
        }
      } catch (const std::runtime_error&) { // nobody has registered yet
      }
      require(Clock::now() < end, "no such enumeration within a minute");
      Sleep(2);
    }
  }

  void enumerateFrom(std::size_t clients, std::size_t rounds, std::size_t count) {
    std::atomic<bool> allRight = true;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < clients; ++i) {
      threads.emplace_back([&] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        try {
          for (std::size_t round = 0; round < rounds; ++round) {
            require(enumerate() == count, "a different number of instances");
          }
        } catch (const std::runtime_error&) {
          allRight = false;
        }
        CoUninitialize();
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    require(allRight, "a client that was not served");
  }

  void sendEvents(const std::string& type, std::size_t first, std::size_t count) {
    constexpr std::size_t kUnderWay = 100; // as many datagrams as any receive buffer holds
    require(channel_.has_value(), "not subscribed");
    std::size_t sent = 0;
    for (std::size_t received = 0; received < count; ++received) {
      for (; sent < count && sent - received < kUnderWay; ++sent) {
        require(channel_->send(type, first + sent), "an event that could not be sent");
      }
      require(WmiClient::next(events_, 10000), "an event that did not arrive");
    }
  }

  const std::wstring class_{documents::kClass, documents::kClass + sizeof documents::kClass - 1};
  DeviceServer server_;
  WmiClient wmi_;
  WmiClient::Objects events_;
  std::optional<EventChannel> channel_;
};

} // namespace
} // namespace bench

int main(int argc, char* argv[]) {
  if (argc != 2) {
    return 2;
  }
  WSADATA winsock;
  WSAStartup(MAKEWORD(2, 2), &winsock);
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                       RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  try {
    bench::Bench bench(static_cast<std::uint16_t>(std::atoi(argv[1])));
    bench::answerCommands([&](const std::string& command, std::istringstream& words) {
      return bench.run(command, words);
    });
  } catch (const std::exception& error) {
    std::cout << "failed: " << error.what() << std::endl;
  }
  TerminateProcess(GetCurrentProcess(), 0); // the device server's thread does not end
}
