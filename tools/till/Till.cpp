#include "till/Till.h"

#include "quillmonctl/Text.h"
#include "till/Documents.h"
#include "till/Xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace till {
namespace {

/// Text from a peer on one log line of bearable length.
std::string printable(std::string_view text) {
  return ctl::truncated(ctl::printable(text), 120);
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

/// For the end of a log line.
std::string suffix(const Misbehaviour& misbehaviour) {
  return misbehaviour.word == "none" ? "" : fmt::format(" ({})", misbehaviour.text());
}

std::string counted(std::size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

} // namespace

Delivery Till::answer(std::string_view text) {
  try {
    const Request request = readRequest(text, {kEnumerateInstances, kGetInstance});
    ++requests_;
    std::vector<const Device*> devices = inventory_.attachedOf(request.className);
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
      outcome = counted(count, "instance");
    }
    log_.event(fmt::format("request {} {}{}{} -> {}, {} bytes{}", request.type,
                           printable(request.className), request.id.empty() ? "" : " ",
                           printable(request.id), outcome, document.size(), suffix(misbehaviour_)));
    return planAnswer(misbehaviour_, document);
  } catch (const RequestError& problem) {
    ++refusals_;
    log_.event(
        fmt::format("request refused: {}{}", printable(problem.what()), suffix(misbehaviour_)));
    return planAnswer(misbehaviour_, errorDocument(problem.what()));
  }
}

Delivery Till::refuse(std::string_view why) {
  ++refusals_;
  log_.event(fmt::format("request refused: {}", printable(why)));
  return planAnswer({}, errorDocument(why));
}

void Till::dropped(std::string_view why) {
  log_.event(fmt::format("connection dropped: {}", why));
}

void Till::connected() {
  heldBack_.clear(); // those were for the connection before
  log_.event(fmt::format("inventory -> {}", sendAll(kAddInstance)));
}

void Till::update(std::string_view request) {
  try {
    readRequest(request, {kUpdateInstances});
    ++requests_;
    // Not addInstance: the service would list a device that it knows once more, and a later
    // delInstance would not remove it. Without a code it takes the fields over and tells nobody.
    log_.event(fmt::format("request updateInstances -> {}", sendAll(kModifyInstance)));
  } catch (const RequestError& problem) {
    refuse(problem.what());
  }
}

std::string Till::counts() const {
  return fmt::format("{} devices ({} attached)", inventory_.devices().size(),
                     inventory_.attachedCount());
}

Device& Till::device(const std::string& id) {
  Device* found = inventory_.find(id);
  if (found == nullptr) {
    throw CommandError(fmt::format("unknown device '{}' (list shows the devices)", printable(id)));
  }
  return *found;
}

void Till::check(const Command& command) {
  if (command.word == "misbehave") {
    if (settings_.isProxy) {
      throw CommandError("nothing is answered in the proxy role: misbehave-events is its command");
    }
    parse(command, answerMisbehaviours());
  } else if (command.word == "misbehave-events") {
    parse(command, eventFaults());
  } else if (command.word == "disconnect" || command.word == "reconnect") {
    if (!settings_.isProxy) {
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

void Till::execute(const Command& command) {
  check(command);
  const std::string& word = command.word;
  const auto argument = [&](std::size_t i) {
    return i < command.arguments.size() ? command.arguments[i] : std::string();
  };
  if (word == "attach" || word == "change" || word == "detach") {
    Device& target = device(argument(0));
    if (target.attached == (word == "attach")) {
      throw CommandError(fmt::format("'{}' is {}", target.id,
                                     target.attached ? "attached already" : "not attached"));
    }
    target.attached = word != "detach";
    sendEvent(target,
              word == "attach"   ? kAddInstance
              : word == "change" ? kModifyInstance
                                 : kDelInstance,
              argument(1));
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
    log_.say(helpText(commands()));
  } else {
    throw std::logic_error("not a command of the till: " + word);
  }
}

const std::vector<MisbehaviourHelp>& Till::eventFaults() const {
  return settings_.isProxy ? streamMisbehaviours() : eventMisbehaviours();
}

std::string_view Till::classnameOf(const Device& device) const {
  return settings_.wholeClassname ? std::string_view(device.className) : device.category();
}

std::string Till::eventDocumentOf(const Device& device, std::string_view type,
                                  std::string_view code) const {
  return eventDocument(device, classnameOf(device), type, code,
                       settings_.isProxy ? EventFields::All : EventFields::DatagramOnly);
}

void Till::sendEvent(const Device& device, std::string_view type, std::string_view code) {
  std::string document = eventDocumentOf(device, type, code);
  std::size_t bytes = document.size();
  const std::string fault = suffix(eventMisbehaviour_);
  if (settings_.isProxy) {
    sendToStream(std::move(document));
  } else {
    bytes = sendDatagrams(document);
  }
  ++eventsSent_;
  log_.event(fmt::format("event {} {} {}{}{}, {} bytes{}", type, classnameOf(device), device.id,
                         code.empty() ? "" : " code ", code, bytes, fault));
  if (!settings_.isProxy && fault.empty() && bytes > kLongestDatagram) {
    log_.error(fmt::format("the event has {} bytes: the service loses datagrams of more than {}",
                           bytes, kLongestDatagram));
  }
}

void Till::hand(Delivery delivery) {
  try {
    events_.send(std::move(delivery));
  } catch (const std::system_error& problem) {
    throw CommandError(fmt::format("the event was not sent: {}", problem.code().message()));
  }
}

std::size_t Till::sendDatagrams(const std::string& document) {
  std::size_t bytes = 0;
  for (std::string& datagram : planEvent(eventMisbehaviour_, document)) {
    bytes += datagram.size();
    Delivery delivery;
    delivery.bytes = std::move(datagram);
    hand(std::move(delivery));
  }
  return bytes;
}

void Till::sendToStream(std::string document) {
  if (!events_.isConnected()) {
    throw CommandError("the event was not sent: the service is not connected");
  }
  heldBack_.push_back(std::move(document));
  if (heldBack_.size() >= streamBatch(eventMisbehaviour_)) {
    flush();
  }
}

void Till::flush() {
  if (heldBack_.empty()) {
    return;
  }
  hand(planStream(eventMisbehaviour_, std::exchange(heldBack_, {})));
  if (endsStream(eventMisbehaviour_)) {
    eventMisbehaviour_ = {};
  }
}

/// An event for each attached device; what is held back goes out with the last of them. The words
/// for the log.
std::string Till::sendAll(std::string_view type) {
  const std::string fault = suffix(eventMisbehaviour_);
  std::size_t count = 0;
  try {
    for (const Device* each : inventory_.attachedOf(kEveryDevice)) {
      sendToStream(eventDocumentOf(*each, type, ""));
      ++count;
    }
    flush();
  } catch (const CommandError& problem) {
    log_.error(problem.what());
  }
  eventsSent_ += count;
  return counted(count, "event") + fault;
}

void Till::set(Device& device, const std::string& field, const std::string& value) {
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

void Till::list() {
  for (const Device& each : inventory_.devices()) {
    log_.say(fmt::format("{:<8} {:<24} {:<16} {}", each.attached ? "attached" : "detached",
                         each.className, each.id, each.value(kMakerField)));
  }
}

void Till::status() {
  std::string connection;
  if (settings_.isProxy) {
    log_.say(fmt::format("update requests: {} answered, {} refused", requests_, refusals_));
    connection = events_.isConnected() ? " (connected)" : " (not connected)";
  } else {
    log_.say(fmt::format("requests on 127.0.0.1:{}: {} answered, {} refused; answers: {}",
                         settings_.requestPort, requests_, refusals_, misbehaviour_.text()));
  }
  log_.say(fmt::format("events to 127.0.0.1:{}{}: {} sent; events: {}", settings_.eventPort,
                       connection, eventsSent_, eventMisbehaviour_.text()));
  log_.say(fmt::format("{} devices, {} attached", inventory_.devices().size(),
                       inventory_.attachedCount()));
}

} // namespace till
