#include "device_server/Simulator.h"

#include "device_server/Documents.h"
#include "device_server/Frame.h"
#include "device_server/Xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace till {
namespace {

/// The service reads this much of a datagram; a longer one is lost as a whole.
constexpr std::size_t kLongestDatagram = 1024;

/// Text from a peer on one log line of bearable length.
std::string printable(std::string_view text) {
  constexpr std::size_t kLongest = 120;
  std::string result(text.substr(0, kLongest));
  std::replace_if(
      result.begin(), result.end(),
      [](char each) { return static_cast<unsigned char>(each) < 0x20 || each == 0x7F; }, '?');
  return text.size() > kLongest ? result + "..." : result;
}

Misbehaviour parse(const Command& command, const std::vector<MisbehaviourHelp>& known) {
  std::string text = command.arguments[0];
  if (command.arguments.size() > 1) {
    text += " " + command.arguments[1];
  }
  try {
    return parseMisbehaviour(text, known);
  } catch (const std::invalid_argument& problem) {
    throw CommandError(problem.what());
  }
}

} // namespace

void Simulator::setPorts(std::uint16_t requestPort, std::uint16_t eventPort) {
  requestPort_ = requestPort;
  eventPort_ = eventPort;
}

Delivery Simulator::answer(std::string_view text) {
  const std::string fault =
      misbehaviour_.word == "none" ? "" : fmt::format(" ({})", misbehaviour_.text());
  try {
    const Request request = readRequest(text);
    ++requests_;
    std::vector<const Device*> devices = till_.attachedOf(request.className);
    if (request.type == kGetInstance) {
      std::erase_if(devices, [&](const Device* each) { return each->id != request.id; });
    }
    std::string document;
    std::string outcome;
    if (misbehaviour_.word == "error") {
      document = errorDocument("simulated failure");
      outcome = "error answer";
    } else {
      const bool huge = misbehaviour_.word == "huge";
      const std::size_t count = huge ? misbehaviour_.number : devices.size();
      document = huge ? hugeDocument(request.className, count) : responseDocument(devices);
      outcome = fmt::format("{} instance{}", count, count == 1 ? "" : "s");
    }
    log_.event(fmt::format("request {} {}{}{} -> {}, {} bytes{}", request.type,
                           printable(request.className), request.id.empty() ? "" : " ",
                           printable(request.id), outcome, document.size(), fault));
    return planAnswer(misbehaviour_, document);
  } catch (const RequestError& problem) {
    ++refusals_;
    log_.event(fmt::format("request refused: {}{}", printable(problem.what()), fault));
    return planAnswer(misbehaviour_, errorDocument(problem.what()));
  }
}

void Simulator::connected() {
  heldBack_.clear(); // those were for the connection before
  log_.event(fmt::format("inventory -> {}", sendAll(kAddInstance)));
}

void Simulator::update(std::string_view request) {
  try {
    readUpdateRequest(request);
    ++requests_;
    // Not addInstance: the service would list a device that it knows once more, and a later
    // delInstance would not remove it. Without a code it takes the fields over and tells nobody.
    log_.event(fmt::format("request updateInstances -> {}", sendAll(kModifyInstance)));
  } catch (const RequestError& problem) {
    refused(printable(problem.what()));
  }
}

void Simulator::refused(std::string_view why) {
  ++refusals_;
  log_.event(fmt::format("request refused: {}", why));
}

void Simulator::dropped(std::string_view why) {
  log_.event(fmt::format("connection dropped: {}", why));
}

Delivery Simulator::refusal(std::string_view why) {
  return planAnswer({}, errorDocument(why));
}

Device& Simulator::device(const std::string& id) {
  Device* found = till_.find(id);
  if (found == nullptr) {
    throw CommandError(fmt::format("unknown device '{}' (list shows the devices)", printable(id)));
  }
  return *found;
}

void Simulator::check(const Command& command) {
  const bool proxy = settings_.strategy == Strategy::Proxy;
  if (command.word == "misbehave") {
    if (proxy) {
      throw CommandError("nothing is answered in the proxy role: misbehave-events is its command");
    }
    parse(command, answerMisbehaviours());
  } else if (command.word == "misbehave-events") {
    parse(command, eventFaults());
  } else if (command.word == "disconnect" || command.word == "reconnect") {
    if (!proxy) {
      throw CommandError("there is no connection in the adapter role");
    }
  } else if (command.word != "wait" && !command.arguments.empty()) {
    device(command.arguments[0]);
  }
  for (const std::string& argument : command.arguments) {
    if (!isXmlText(argument)) {
      throw CommandError("an argument is not UTF-8 text that a document can carry");
    }
  }
}

void Simulator::execute(const Command& command) {
  check(command);
  const std::string& word = command.word;
  const auto argument = [&](std::size_t i) {
    return i < command.arguments.size() ? command.arguments[i] : std::string();
  };
  if (word == "attach") {
    Device& target = device(argument(0));
    if (target.attached) {
      throw CommandError(fmt::format("'{}' is attached already", target.id));
    }
    target.attached = true;
    sendEvent(target, kAddInstance, "");
  } else if (word == "change") {
    Device& target = device(argument(0));
    if (!target.attached) {
      throw CommandError(fmt::format("'{}' is not attached", target.id));
    }
    sendEvent(target, kModifyInstance, argument(1));
  } else if (word == "detach") {
    Device& target = device(argument(0));
    if (!target.attached) {
      throw CommandError(fmt::format("'{}' is not attached", target.id));
    }
    target.attached = false;
    sendEvent(target, kDelInstance, "");
  } else if (word == "event") {
    sendEvent(device(argument(0)), argument(1), argument(2));
  } else if (word == "set") {
    set(device(argument(0)), argument(1), argument(2));
  } else if (word == "list") {
    list();
  } else if (word == "status") {
    status();
  } else if (word == "misbehave") {
    misbehaviour_ = parse(command, answerMisbehaviours());
    log_.event(fmt::format("answers from now on: {}", misbehaviour_.text()));
  } else if (word == "misbehave-events") {
    if (events_.isConnected()) {
      flush();
    }
    eventMisbehaviour_ = parse(command, eventFaults());
    log_.event(fmt::format("events from now on: {}", eventMisbehaviour_.text()));
  } else if (word == "disconnect") {
    events_.disconnect();
  } else if (word == "reconnect") {
    events_.reconnect();
  } else if (word == "help") {
    log_.say(commandHelp());
  } else {
    throw std::logic_error("not a command of the simulator: " + word);
  }
}

const std::vector<MisbehaviourHelp>& Simulator::eventFaults() const {
  return settings_.strategy == Strategy::Proxy ? streamMisbehaviours() : eventMisbehaviours();
}

/// For the end of a log line.
std::string Simulator::eventFault() const {
  return eventMisbehaviour_.word == "none" ? "" : fmt::format(" ({})", eventMisbehaviour_.text());
}

Event Simulator::eventOf(const Device& device, std::string_view type, std::string_view code) const {
  Event event = deviceEvent(device, type, code,
                            settings_.strategy == Strategy::Proxy ? EventFields::All
                                                                  : EventFields::DatagramOnly);
  if (settings_.wholeClassname) {
    event.classname = device.className;
  }
  return event;
}

void Simulator::sendEvent(const Device& device, std::string_view type, std::string_view code) {
  const Event event = eventOf(device, type, code);
  std::string document = eventDocument(event);
  std::size_t bytes = document.size();
  const std::string fault = eventFault();
  if (settings_.strategy == Strategy::Proxy) {
    sendToStream(std::move(document));
  } else {
    bytes = sendDatagrams(document);
  }
  ++eventsSent_;
  log_.event(fmt::format("event {} {} {}{}{}, {} bytes{}", event.type, event.classname, device.id,
                         event.code.empty() ? "" : " code ", event.code, bytes, fault));
  if (settings_.strategy == Strategy::Adapter && fault.empty() && bytes > kLongestDatagram) {
    log_.error(fmt::format("the event has {} bytes: the service loses datagrams of more than {}",
                           bytes, kLongestDatagram));
  }
}

std::size_t Simulator::sendDatagrams(const std::string& document) {
  std::size_t bytes = 0;
  try {
    for (std::string& datagram : planEvent(eventMisbehaviour_, document)) {
      const std::size_t size = datagram.size();
      Delivery delivery;
      delivery.bytes = std::move(datagram);
      events_.send(std::move(delivery));
      bytes += size;
    }
  } catch (const std::system_error& problem) {
    throw CommandError(fmt::format("the event was not sent: {}", problem.code().message()));
  }
  return bytes;
}

void Simulator::sendToStream(std::string document) {
  if (!events_.isConnected()) {
    throw CommandError("the event was not sent: the service is not connected");
  }
  heldBack_.push_back(std::move(document));
  if (heldBack_.size() >= streamBatch(eventMisbehaviour_)) {
    flush();
  }
}

void Simulator::flush() {
  if (heldBack_.empty()) {
    return;
  }
  const std::vector<std::string> documents = std::exchange(heldBack_, {});
  try {
    events_.send(planStream(eventMisbehaviour_, documents));
  } catch (const std::system_error& problem) {
    throw CommandError(fmt::format("the event was not sent: {}", problem.code().message()));
  }
  if (endsStream(eventMisbehaviour_)) {
    eventMisbehaviour_ = {};
  }
}

/// An event for each attached device; what is held back goes out with the last of them. The words
/// for the log.
std::string Simulator::sendAll(std::string_view type) {
  const std::string fault = eventFault();
  std::size_t count = 0;
  try {
    for (const Device* each : till_.attachedOf(kEveryDevice)) {
      sendToStream(eventDocument(eventOf(*each, type, "")));
      ++count;
    }
    flush();
  } catch (const CommandError& problem) {
    log_.error(problem.what());
  }
  eventsSent_ += count;
  return fmt::format("{} event{}{}", count, count == 1 ? "" : "s", fault);
}

void Simulator::set(Device& device, const std::string& field, const std::string& value) {
  if (field == kDeviceIdField) {
    throw CommandError("a device's id cannot be changed");
  }
  if (field.empty()) {
    throw CommandError("a field needs a name");
  }
  const auto found = std::find_if(device.fields.begin(), device.fields.end(),
                                  [&](const Field& each) { return each.name == field; });
  if (found == device.fields.end()) {
    device.fields.push_back({field, "string", value});
  } else {
    found->value = value;
  }
  log_.event(fmt::format("set {} {} = {}", device.id, field, value));
}

void Simulator::list() {
  for (const Device& each : till_.devices()) {
    log_.say(fmt::format("{:<8} {:<24} {:<16} {}", each.attached ? "attached" : "detached",
                         each.className, each.id, each.value(kMakerField)));
  }
}

void Simulator::status() {
  if (settings_.strategy == Strategy::Proxy) {
    log_.say(fmt::format("update requests: {} answered, {} refused", requests_, refusals_));
    log_.say(fmt::format("events to 127.0.0.1:{} ({}): {} sent; events: {}", eventPort_,
                         events_.isConnected() ? "connected" : "not connected", eventsSent_,
                         eventMisbehaviour_.text()));
  } else {
    log_.say(fmt::format("requests on 127.0.0.1:{}: {} answered, {} refused; answers: {}",
                         requestPort_, requests_, refusals_, misbehaviour_.text()));
    log_.say(fmt::format("events to 127.0.0.1:{}: {} sent; events: {}", eventPort_, eventsSent_,
                         eventMisbehaviour_.text()));
  }
  log_.say(fmt::format("{} devices, {} attached", till_.devices().size(), till_.attachedCount()));
}

} // namespace till
