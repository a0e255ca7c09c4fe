#include "till/ServerCheck.h"

#include "adapter/UPOSXMLAdapter.h"
#include "model/RequestVocabulary.h"
#include "proxy/CIMContainer.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/EventSplitter.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "till/DocumentCheck.h"
#include "till/DocumentReportText.h"
#include "till/Documents.h"
#include "till/Frame.h"
#include "xml/XmlLibrary.h"

#include <asio.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

namespace till {
namespace {

using asio::ip::tcp;
using asio::ip::udp;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Kind = DocumentReport::Kind;
using Result = CheckedItem::Result;

constexpr std::size_t kLargestAnswer = std::size_t{256} << 20U;
constexpr std::size_t kLargestPending = std::size_t{64} << 20U; // as the service has it
constexpr std::size_t kReceiveSize = 1023;                      // as the service has it
constexpr std::size_t kMostDevicesAsked = 50;
constexpr int kMostTimeouts = 2;
constexpr milliseconds kLate{1000};
constexpr milliseconds kQuiet{1000};
/// No till has such a device. Its characters need escapes in XML.
constexpr const char* kNobody = "no such <device> & none";

milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

/// What an asynchronous call ended with.
struct Ended {
  asio::error_code problem;
  std::size_t count = 0; ///< of bytes
};

/// Runs asynchronous calls one at a time, each until a deadline.
class Waiter {
public:
  asio::io_context context;

  /// `start` gets the handler of a call; `cancel` makes a call end that is late.
  template <class Start, class Cancel>
  Ended wait(Clock::time_point deadline, const Start& start, const Cancel& cancel) {
    Ended result;
    bool ended = false;
    start([&](asio::error_code problem, std::size_t count = 0) {
      result = {problem, count};
      ended = true;
    });
    context.restart();
    context.run_until(deadline);
    if (!ended) {
      cancel();
      context.restart();
      context.run();
      result = {asio::error::timed_out};
    }
    return result;
  }
};

void close(tcp::socket& socket) {
  asio::error_code ignored;
  socket.close(ignored);
}

/// What an exchange on the request port ended with.
struct Exchange {
  enum class End { Answered, NotConnected, Closed, Reset, TimedOut, TooLarge };

  End end = End::Answered;
  std::string problem; ///< of the system
  std::string bytes;
  milliseconds time{0};
};

class ServerCheck {
public:
  ServerCheck(const ServerCheckOptions& options, const std::function<void(std::string_view)>& say)
      : options_(options), say_(say) {}

  std::vector<CheckedItem> run() {
    const ::xml::XmlLibrary library; // kept: it would start anew with each document
    options_.isProxy ? runProxy() : runAdapter();
    return std::move(items_);
  }

private:
  struct Device {
    std::string className;
    std::string id;
  };

  CheckedItem& begin(std::string name);
  bool skips(CheckedItem& item);
  void judgeDocument(CheckedItem& item, const DocumentReport& report, Finding::Strategy other);

  // adapter strategy
  void runAdapter();
  std::string request(const std::string& type, const std::string& cls, const std::string& id);
  std::unique_ptr<tcp::socket> connect(Exchange& exchange, Clock::time_point deadline);
  void send(tcp::socket& socket, Exchange& exchange, std::string_view bytes,
            Clock::time_point deadline, std::size_t pieceSize);
  void receive(tcp::socket& socket, Exchange& exchange, Clock::time_point deadline);
  Exchange ask(const std::string& document, std::size_t pieceSize = 0);
  std::optional<DocumentReport> judge(CheckedItem& item, const Exchange& exchange);
  std::optional<DocumentReport> askFor(const std::string& name, const std::string& document,
                                       std::size_t pieceSize = 0);
  void expectDevices(CheckedItem& item, const DocumentReport& report,
                     const std::vector<std::string>& ids);
  void checkLists();
  void checkRetrievals();
  void checkOddRequests();
  void checkManyAtOnce();
  void checkDatagrams(udp::socket& socket);
  void judgeDatagram(CheckedItem& item, std::string_view bytes, std::string& pending,
                     std::size_t& events);

  // proxy strategy
  void runProxy();
  void acceptConnection(tcp::acceptor& acceptor, CheckedItem& item);
  void takeDocument(CheckedItem& item, const std::string& document,
                    const std::function<void(const DocumentReport&)>& judgeMore);
  template <class Done>
  void takeUntil(CheckedItem& item, const Done& done, bool untilQuiet,
                 const std::function<void(const DocumentReport&)>& judgeMore);
  void checkInventory(const std::string& name, const std::set<std::string>& expected,
                      std::size_t count);
  void checkUpdate();
  void checkStreamEvents();

  const ServerCheckOptions& options_;
  const std::function<void(std::string_view)>& say_;
  Waiter waiter_;
  std::vector<CheckedItem> items_;
  std::set<std::string> told_; ///< findings about documents, each once
  int timeouts_ = 0;
  std::vector<Device> devices_; ///< adapter strategy
  std::unique_ptr<tcp::socket> stream_;
  proxy::EventSplitter splitter_;
  proxy::CIMContainer cache_;
  std::set<std::string> added_; ///< proxy strategy: devices of the connection
};

CheckedItem& ServerCheck::begin(std::string name) {
  CheckedItem& item = items_.emplace_back();
  item.name = std::move(name);
  return item;
}

bool ServerCheck::skips(CheckedItem& item) {
  if (timeouts_ < kMostTimeouts) {
    return false;
  }
  item.result = Result::Skipped;
  return true;
}

/// The findings that matter in this strategy; each is said once.
void ServerCheck::judgeDocument(CheckedItem& item, const DocumentReport& report,
                                Finding::Strategy other) {
  for (Finding finding : report.findings) {
    if (finding.level == Finding::Level::Note || finding.strategy == other) {
      continue;
    }
    finding.instance = 0;
    finding.strategy = Finding::Strategy::Both;
    if (const std::string text = toText(finding); told_.insert(text).second) {
      item.warn(text);
    }
  }
}

std::string unreadableText(const DocumentReport& report) {
  return fmt::format(
      "the document is unreadable: {}{}", report.message,
      report.line == 0 ? "" : fmt::format(" at line {}, column {}", report.line, report.column));
}

// -- the adapter strategy

void ServerCheck::runAdapter() {
  const udp::endpoint place(asio::ip::address_v4::loopback(), options_.eventPort);
  udp::socket events(waiter_.context);
  try {
    events.open(udp::v4());
    events.bind(place);
  } catch (const std::system_error& problem) {
    throw std::system_error(problem.code(),
                            fmt::format("opening the event port, UDP {}", options_.eventPort));
  }
  checkLists();
  checkRetrievals();
  checkOddRequests();
  checkManyAtOnce();
  checkDatagrams(events);
}

std::string ServerCheck::request(const std::string& type, const std::string& cls,
                                 const std::string& id) {
  std::string document;
  UPOSXMLAdapter().toXML(cls, request_vocabulary::kRequest, type, id, document);
  return document;
}

std::unique_ptr<tcp::socket> ServerCheck::connect(Exchange& exchange, Clock::time_point deadline) {
  asio::error_code problem;
  const auto places =
      tcp::resolver(waiter_.context)
          .resolve(tcp::v4(), options_.host, std::to_string(options_.requestPort), problem);
  if (problem || places.empty()) {
    throw std::system_error(problem, fmt::format("looking up {}", options_.host));
  }
  auto socket = std::make_unique<tcp::socket>(waiter_.context);
  problem =
      waiter_
          .wait(
              deadline,
              [&](auto handler) { socket->async_connect(places.begin()->endpoint(), handler); },
              [&] { close(*socket); })
          .problem;
  if (problem) {
    exchange.end =
        problem == asio::error::timed_out ? Exchange::End::TimedOut : Exchange::End::NotConnected;
    exchange.problem = problem.message();
    return nullptr;
  }
  asio::error_code ignored;
  socket->set_option(tcp::no_delay(true), ignored);
  return socket;
}

void ServerCheck::send(tcp::socket& socket, Exchange& exchange, std::string_view bytes,
                       Clock::time_point deadline, std::size_t pieceSize) {
  while (!bytes.empty() && exchange.end == Exchange::End::Answered) {
    const std::string_view piece = bytes.substr(0, pieceSize == 0 ? bytes.size() : pieceSize);
    bytes.remove_prefix(piece.size());
    const Ended ended = waiter_.wait(
        deadline,
        [&](auto handler) {
          asio::async_write(socket, asio::buffer(piece.data(), piece.size()), handler);
        },
        [&] { close(socket); });
    if (ended.problem == asio::error::timed_out) {
      exchange.end = Exchange::End::TimedOut;
    }
    // Another problem shows in what is received.
  }
}

void ServerCheck::receive(tcp::socket& socket, Exchange& exchange, Clock::time_point deadline) {
  FrameScanner scanner;
  std::array<char, 65536> area{};
  while (exchange.end == Exchange::End::Answered) {
    const auto [problem, count] = waiter_.wait(
        deadline, [&](auto handler) { socket.async_read_some(asio::buffer(area), handler); },
        [&] { close(socket); });
    const std::string_view received(area.data(), count);
    exchange.bytes += received;
    if (problem) {
      exchange.end = problem == asio::error::timed_out ? Exchange::End::TimedOut
                     : problem == asio::error::eof     ? Exchange::End::Closed
                                                       : Exchange::End::Reset;
      exchange.problem = problem.message();
    } else if (scanner.feed(received)) {
      return;
    } else if (exchange.bytes.size() > kLargestAnswer) {
      exchange.end = Exchange::End::TooLarge;
    }
  }
}

Exchange ServerCheck::ask(const std::string& document, std::size_t pieceSize) {
  Exchange exchange;
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = start + options_.timeout;
  if (const auto socket = connect(exchange, deadline)) {
    send(*socket, exchange, frame(document), deadline, pieceSize);
    receive(*socket, exchange, deadline);
  }
  exchange.time = since(start);
  return exchange;
}

/// The report on an answer that came whole.
std::optional<DocumentReport> ServerCheck::judge(CheckedItem& item, const Exchange& exchange) {
  item.time = exchange.time;
  const Unframed message = unframe(exchange.bytes);
  const std::string received = exchange.bytes.empty()
                                   ? "without a byte of an answer"
                                   : fmt::format("after {} bytes, {}", exchange.bytes.size(),
                                                 message.started ? "without the end mark (BS)"
                                                                 : "without a start mark (ESC)");
  switch (exchange.end) {
  case Exchange::End::NotConnected:
    item.fail(fmt::format("no connection to {}:{}: {}", options_.host, options_.requestPort,
                          exchange.problem));
    return std::nullopt;
  case Exchange::End::TimedOut:
    ++timeouts_;
    item.fail(fmt::format("no whole answer within {} ms ({}): the service would go on waiting",
                          options_.timeout.count(), received));
    return std::nullopt;
  case Exchange::End::Closed:
    item.fail(fmt::format("the connection was closed {}", received));
    return std::nullopt;
  case Exchange::End::Reset:
    item.fail(fmt::format("the connection was reset {}", received));
    return std::nullopt;
  case Exchange::End::TooLarge:
    item.fail(fmt::format("the answer has more than {} MiB and no end", kLargestAnswer >> 20U));
    return std::nullopt;
  case Exchange::End::Answered:
    break;
  }
  if (message.before != 0) {
    item.warn(fmt::format("{} bytes before the start mark (ESC) are dropped", message.before));
  }
  if (exchange.time >= kLate) {
    item.warn(fmt::format("clients wait for it, by default one after the other: {} ms",
                          exchange.time.count()));
  }
  DocumentReport report = checkDocument(message.message);
  if (report.kind == Kind::Unreadable) {
    item.fail(unreadableText(report));
    return std::nullopt;
  }
  if (report.kind == Kind::Event) {
    item.fail("the answer is an event");
    return std::nullopt;
  }
  judgeDocument(item, report, Finding::Strategy::Proxy);
  return report;
}

/// A request that must be answered, not with an error.
std::optional<DocumentReport>
ServerCheck::askFor(const std::string& name, const std::string& document, std::size_t pieceSize) {
  CheckedItem& item = begin(name);
  if (skips(item)) {
    return std::nullopt;
  }
  std::optional<DocumentReport> report = judge(item, ask(document, pieceSize));
  if (report && report->status == 1) {
    item.fail("an error answer: the client's request fails");
    report.reset();
  }
  return report;
}

std::vector<std::string> idsOf(const DocumentReport& report) {
  std::vector<std::string> ids;
  for (const InstanceVerdict& each : report.instances) {
    ids.push_back(each.device);
  }
  std::ranges::sort(ids);
  return ids;
}

void ServerCheck::expectDevices(CheckedItem& item, const DocumentReport& report,
                                const std::vector<std::string>& ids) {
  std::vector<std::string> wanted = ids;
  std::ranges::sort(wanted);
  const std::vector<std::string> got = idsOf(report);
  if (got != wanted) {
    const auto listed = [](const std::vector<std::string>& words) {
      constexpr std::ptrdiff_t kMost = 5;
      const std::vector<std::string> first(words.begin(),
                                           words.begin() + std::min(std::ssize(words), kMost));
      return words.empty()
                 ? std::string("none")
                 : fmt::format("{}{}", fmt::join(first, ", "),
                               words.size() > first.size()
                                   ? fmt::format(" and {} more", words.size() - first.size())
                                   : "");
    };
    item.fail(fmt::format("the devices are {}, not {}", listed(got), listed(wanted)));
  }
}

void ServerCheck::checkLists() {
  const std::string every =
      request(request_vocabulary::kEnumerateInstances, std::string(kEveryDevice), "");
  if (const auto report = askFor("list of all devices", every)) {
    std::set<std::string> ids;
    for (const InstanceVerdict& each : report->instances) {
      if (!ids.insert(each.device).second) {
        items_.back().fail(fmt::format("the id \"{}\" comes more than once", each.device));
      } else if (!each.device.empty()) {
        devices_.push_back({each.className, each.device});
      }
      if (each.className == kEveryDevice) {
        items_.back().warn(fmt::format("{}: the name of the instance is {}, not the device's own "
                                       "class",
                                       each.device, each.className));
      }
    }
  } else if (timeouts_ != 0) {
    timeouts_ = kMostTimeouts; // it answers nothing
  }
  std::map<std::string, std::vector<std::string>> classes;
  for (const Device& each : devices_) {
    classes[each.className].push_back(each.id);
  }
  for (const auto& [name, ids] : classes) {
    if (const auto report = askFor(fmt::format("list of {}", name),
                                   request(request_vocabulary::kEnumerateInstances, name, ""))) {
      expectDevices(items_.back(), *report, ids);
    }
  }
  if (const auto report =
          askFor("list of a class without devices",
                 request(request_vocabulary::kEnumerateInstances, "UPOS_NoSuchDevice", ""))) {
    expectDevices(items_.back(), *report, {});
  }
  if (const auto report = askFor("the same request in pieces", every, 1)) {
    std::vector<std::string> ids;
    for (const Device& each : devices_) {
      ids.push_back(each.id);
    }
    expectDevices(items_.back(), *report, ids);
  }
}

void ServerCheck::checkRetrievals() {
  const auto get = [this](const std::string& cls, const std::string& id) {
    if (const auto report = askFor(fmt::format("retrieval of {} as {}", id, cls),
                                   request(request_vocabulary::kGetInstance, cls, id))) {
      expectDevices(items_.back(), *report, {id});
    }
  };
  for (std::size_t i = 0; i < std::min(devices_.size(), kMostDevicesAsked); ++i) {
    get(devices_[i].className, devices_[i].id);
  }
  if (!devices_.empty()) {
    get(std::string(kEveryDevice), devices_.front().id);
  }
}

void ServerCheck::checkOddRequests() {
  CheckedItem& nobody = begin("retrieval of an unknown id");
  if (!skips(nobody)) {
    const auto report = judge(
        nobody, ask(request(request_vocabulary::kGetInstance, std::string(kEveryDevice), kNobody)));
    if (report && report->status == 0) {
      expectDevices(nobody, *report, {});
    }
  }
  CheckedItem& unknown = begin("request of an unknown type");
  if (!skips(unknown)) {
    const auto report = judge(unknown, ask(request(request_vocabulary::kEnumerateInstanceNames,
                                                   std::string(kEveryDevice), "")));
    if (report && report->status == 0) {
      unknown.warn("it is not answered with an error answer");
    }
  }
}

void ServerCheck::checkManyAtOnce() {
  constexpr std::size_t kMany = 4;
  CheckedItem& item = begin("four requests at once, after a connection without one");
  if (skips(item)) {
    return;
  }
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = start + options_.timeout;
  const std::string message =
      frame(request(request_vocabulary::kEnumerateInstances, std::string(kEveryDevice), ""));
  std::array<Exchange, kMany> exchanges;
  std::array<std::unique_ptr<tcp::socket>, kMany> sockets;
  Exchange silent;
  connect(silent, deadline);
  for (std::size_t i = 0; i < kMany; ++i) {
    sockets[i] = connect(exchanges[i], deadline);
  }
  // The last one first: a device server that serves one connection after the other is seen.
  for (std::size_t i = kMany; i-- > 0;) {
    if (sockets[i]) {
      send(*sockets[i], exchanges[i], message, deadline, 0);
      receive(*sockets[i], exchanges[i], deadline);
      exchanges[i].time = since(start);
    }
    if (exchanges[i].end == Exchange::End::TimedOut) {
      item.warn(fmt::format("no answer came within {} ms while other connections were open: it "
                            "serves one at a time, so provider.maxQueryThreads has to stay 1",
                            options_.timeout.count()));
      return;
    }
    const auto report = judge(item, exchanges[i]);
    if (item.result == Result::Bad) {
      return;
    }
    if (report && report->status != 0) {
      item.fail("an error answer: the client's request fails");
      return;
    }
  }
}

void ServerCheck::judgeDatagram(CheckedItem& item, std::string_view bytes, std::string& pending,
                                std::size_t& events) {
  if (bytes.size() > kLongestDatagram) {
    item.fail(
        fmt::format("a datagram of {} bytes is lost: {} are read", bytes.size(), kLongestDatagram));
    return;
  }
  if (bytes.empty()) {
    item.warn("an empty datagram is ignored");
  }
  pending += bytes;
  for (Unframed message = unframe(pending); message.ended; message = unframe(pending)) {
    if (message.before != 0) {
      item.warn(fmt::format("{} bytes before a start mark (ESC) are dropped", message.before));
    }
    ++events;
    const DocumentReport report = checkDocument(message.message);
    if (report.kind == Kind::Unreadable) {
      item.fail(unreadableText(report));
    } else if (report.kind == Kind::Answer) {
      item.fail("a document without an element \"event\" is dropped");
    } else {
      judgeDocument(item, report, Finding::Strategy::Proxy);
    }
    pending.erase(0, message.before + message.message.size() + 2);
  }
  if (!unframe(pending).started) {
    if (!pending.empty()) {
      item.warn(fmt::format("{} bytes outside of a message are dropped", pending.size()));
    }
    pending.clear();
  }
}

void ServerCheck::checkDatagrams(udp::socket& socket) {
  CheckedItem& item = begin("events, as datagrams");
  const std::size_t wanted = options_.events.value_or(1);
  std::size_t events = 0;
  std::string pending;
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = start + options_.timeout;
  if (wanted != 0) {
    say_(fmt::format("waiting for {} event(s) on UDP port {}: attach, change or detach a device",
                     wanted, options_.eventPort));
  }
  std::string area(65536, '\0');
  while (events < wanted || socket.available() != 0) { // with those that came meanwhile
    const auto [problem, count] = waiter_.wait(
        deadline, [&](auto handler) { socket.async_receive(asio::buffer(area), handler); },
        [&] { socket.cancel(); });
    if (problem) {
      break;
    }
    judgeDatagram(item, std::string_view(area).substr(0, count), pending, events);
  }
  if (!pending.empty()) {
    item.fail("an event without its end mark (BS) swallows the next one");
  }
  if (events < wanted) {
    const std::string text =
        fmt::format("{} of {} events came within {} ms", events, wanted, options_.timeout.count());
    options_.events ? item.fail(text) : item.warn(text);
  }
}

// -- the proxy strategy

void ServerCheck::runProxy() {
  tcp::acceptor acceptor(waiter_.context);
  const tcp::endpoint place(asio::ip::address_v4::loopback(), options_.eventPort);
  try {
    acceptor.open(place.protocol());
#ifdef _WIN32
    // Windows would let the service and this program share the port.
    using Exclusive = asio::detail::socket_option::boolean<SOL_SOCKET, SO_EXCLUSIVEADDRUSE>;
    acceptor.set_option(Exclusive(true));
#else
    acceptor.set_option(tcp::acceptor::reuse_address(true));
#endif
    acceptor.bind(place);
    acceptor.listen();
  } catch (const std::system_error& problem) {
    throw std::system_error(problem.code(),
                            fmt::format("opening the event port, TCP {}", options_.eventPort));
  }
  say_(fmt::format("waiting for the device server on 127.0.0.1:{}", options_.eventPort));
  acceptConnection(acceptor, begin("connection"));
  checkInventory("devices after connecting", {}, options_.devices);
  checkUpdate();
  const std::set<std::string> known = std::exchange(added_, {});
  stream_.reset();
  acceptConnection(acceptor, begin("connection after the service has closed it"));
  checkInventory("devices after connecting again", known, known.size());
  checkStreamEvents();
}

void ServerCheck::acceptConnection(tcp::acceptor& acceptor, CheckedItem& item) {
  if (skips(item)) {
    return;
  }
  const Clock::time_point start = Clock::now();
  auto socket = std::make_unique<tcp::socket>(waiter_.context);
  const Ended ended = waiter_.wait(
      start + options_.timeout, [&](auto handler) { acceptor.async_accept(*socket, handler); },
      [&] { acceptor.cancel(); });
  item.time = since(start);
  if (ended.problem) {
    timeouts_ = kMostTimeouts; // nothing can follow
    item.fail(fmt::format("no connection within {} ms", options_.timeout.count()));
    return;
  }
  stream_ = std::move(socket);
  splitter_ = {};
}

void ServerCheck::takeDocument(CheckedItem& item, const std::string& document,
                               const std::function<void(const DocumentReport&)>& judgeMore) {
  const DocumentReport report = checkDocument(document);
  if (report.kind == Kind::Unreadable) {
    item.fail(unreadableText(report));
  } else if (report.kind == Kind::Answer) {
    item.fail("a document without an element \"event\" is dropped");
  } else {
    judgeDocument(item, report, Finding::Strategy::Adapter);
    judgeMore(report);
    proxy::CIMDeviceUtil::processEvent(com::orvex::ProxyImpXmlAdapter().fromXMLEvent(document),
                                       cache_);
  }
}

/// Takes documents until `done`, until nothing has come for a while if that is the end, or until
/// the time-out, after which `done` is still false.
template <class Done>
void ServerCheck::takeUntil(CheckedItem& item, const Done& done, bool untilQuiet,
                            const std::function<void(const DocumentReport&)>& judgeMore) {
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline = start + options_.timeout;
  std::array<char, kReceiveSize> area{};
  bool isQuiet = false;
  while (!done() && !isQuiet) {
    const bool mayBeQuiet = untilQuiet && item.time;
    const auto [problem, count] = waiter_.wait(
        mayBeQuiet ? std::min(deadline, Clock::now() + kQuiet) : deadline,
        [&](auto handler) { stream_->async_read_some(asio::buffer(area), handler); },
        [&] { stream_->cancel(); });
    if (problem == asio::error::timed_out) {
      isQuiet = true;
      if (Clock::now() >= deadline) {
        ++timeouts_;
      }
    } else if (problem) {
      timeouts_ = kMostTimeouts;
      item.fail(fmt::format("the device server ended the connection: {}", problem.message()));
      return;
    }
    const std::string text(area.data(), count); // the service reads it up to its first NUL
    for (const std::string& document : splitter_.split(text.c_str())) {
      takeDocument(item, document, judgeMore);
      item.time = since(start);
    }
    if (splitter_.pendingSize() > kLargestPending) {
      timeouts_ = kMostTimeouts;
      item.fail("a document of more than 64 MiB has no end: the service drops the connection");
      return;
    }
  }
  if (splitter_.pendingSize() != 0 && isQuiet) {
    item.fail(fmt::format("{} bytes are no whole document: the service waits for the end marker "
                          "</event>, or for the next start marker",
                          splitter_.pendingSize()));
  }
}

void ServerCheck::checkInventory(const std::string& name, const std::set<std::string>& expected,
                                 std::size_t count) {
  CheckedItem& item = begin(name);
  if (skips(item)) {
    return;
  }
  takeUntil(
      item, [&] { return count != 0 && added_.size() >= count; }, count == 0,
      [&](const DocumentReport& report) {
        const EventTexts& event = *report.event;
        if (event.type == kAddInstance) {
          if (!added_.insert(event.device).second) {
            item.warn(
                fmt::format("{} is added twice: one delInstance will not remove it", event.device));
          }
        } else if (event.type == kModifyInstance && !added_.contains(event.device)) {
          item.warn(fmt::format("{} is changed and has not been added: a service that has just "
                                "started drops that",
                                event.device));
        }
      });
  if (added_.empty()) {
    item.fail(fmt::format("no addInstance came within {} ms", options_.timeout.count()));
    timeouts_ = kMostTimeouts; // nothing can follow
  } else if (added_.size() < count) {
    item.fail(fmt::format("{} of {} devices came within {} ms", added_.size(), count,
                          options_.timeout.count()));
  }
  for (const std::string& id : expected) {
    if (!added_.contains(id)) {
      item.fail(fmt::format("{} is not added again", id));
    }
  }
}

void ServerCheck::checkUpdate() {
  CheckedItem& item = begin("request for an update");
  if (added_.empty() || skips(item)) {
    item.result = Result::Skipped;
    return;
  }
  std::string document;
  com::orvex::ProxyImpXmlAdapter().toXML("", "", "", "", document);
  const Clock::time_point deadline = Clock::now() + options_.timeout;
  waiter_.wait(
      deadline, [&](auto handler) { asio::async_write(*stream_, asio::buffer(document), handler); },
      [&] { stream_->cancel(); });
  std::set<std::string> updated;
  takeUntil(
      item, [&] { return updated.size() >= added_.size(); }, false,
      [&](const DocumentReport& report) {
        const EventTexts& event = *report.event;
        updated.insert(event.device);
        if (event.type == kAddInstance) {
          item.warn(fmt::format("{} is added once more: answer with modifyInstance without a code",
                                event.device));
        } else if (!event.code.empty() && event.code != " ") {
          item.warn(fmt::format("the update of {} has the code \"{}\": it is published as a change",
                                event.device, event.code));
        }
      });
  if (updated.size() < added_.size()) {
    item.fail(fmt::format("{} of {} devices were sent within {} ms", updated.size(), added_.size(),
                          options_.timeout.count()));
  }
}

void ServerCheck::checkStreamEvents() {
  const std::size_t wanted = options_.events.value_or(1);
  if (wanted == 0) {
    return;
  }
  CheckedItem& item = begin("events, on the stream");
  if (skips(item)) {
    return;
  }
  say_(fmt::format("waiting for {} event(s): attach, change or detach a device", wanted));
  std::size_t events = 0;
  takeUntil(
      item, [&] { return events >= wanted; }, false, [&](const DocumentReport&) { ++events; });
  if (events < wanted) {
    const std::string text =
        fmt::format("{} of {} events came within {} ms", events, wanted, options_.timeout.count());
    options_.events ? item.fail(text) : item.warn(text);
  }
}

} // namespace

void CheckedItem::warn(std::string finding) {
  result = std::max(result, Result::Warning);
  findings.push_back(std::move(finding));
}

void CheckedItem::fail(std::string finding) {
  result = Result::Bad;
  findings.push_back(std::move(finding));
}

std::vector<CheckedItem> checkServer(const ServerCheckOptions& options,
                                     const std::function<void(std::string_view)>& say) {
  return ServerCheck(options, say).run();
}

} // namespace till
