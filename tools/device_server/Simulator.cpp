#include "device_server/Simulator.h"

#include "device_server/Documents.h"
#include "device_server/Frame.h"
#include "device_server/Xml.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

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
  if (command.word == "misbehave") {
    parse(command, answerMisbehaviours());
  } else if (command.word == "misbehave-events") {
    parse(command, eventMisbehaviours());
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
    eventMisbehaviour_ = parse(command, eventMisbehaviours());
    log_.event(fmt::format("events from now on: {}", eventMisbehaviour_.text()));
  } else if (word == "help") {
    log_.say(commandHelp());
  } else {
    throw std::logic_error("not a command of the simulator: " + word);
  }
}

void Simulator::sendEvent(const Device& device, std::string_view type, std::string_view code) {
  const Event event = deviceEvent(device, type, code, EventFields::DatagramOnly);
  const std::vector<std::string> datagrams = planEvent(eventMisbehaviour_, eventDocument(event));
  std::size_t bytes = 0;
  try {
    for (const std::string& datagram : datagrams) {
      events_.send(datagram);
      bytes += datagram.size();
    }
  } catch (const std::system_error& problem) {
    throw CommandError(fmt::format("the event was not sent: {}", problem.code().message()));
  }
  ++eventsSent_;
  const bool proper = eventMisbehaviour_.word == "none";
  log_.event(fmt::format("event {} {} {}{}{}, {} bytes{}", event.type, event.classname, device.id,
                         event.code.empty() ? "" : " code ", event.code, bytes,
                         proper ? "" : fmt::format(" ({})", eventMisbehaviour_.text())));
  if (proper && bytes > kLongestDatagram) {
    log_.error(fmt::format("the event has {} bytes: the service loses datagrams of more than {}",
                           bytes, kLongestDatagram));
  }
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
  log_.say(fmt::format("requests on 127.0.0.1:{}: {} answered, {} refused; answers: {}",
                       requestPort_, requests_, refusals_, misbehaviour_.text()));
  log_.say(fmt::format("events to 127.0.0.1:{}: {} sent; events: {}", eventPort_, eventsSent_,
                       eventMisbehaviour_.text()));
  log_.say(fmt::format("{} devices, {} attached", till_.devices().size(), till_.attachedCount()));
}

} // namespace till
