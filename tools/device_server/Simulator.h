#pragma once

#include "device_server/Command.h"
#include "device_server/Delivery.h"
#include "device_server/Documents.h"
#include "device_server/EventChannel.h"
#include "device_server/Log.h"
#include "device_server/Till.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace till {

/// What the service expects of the device server. Adapter: to be asked for devices, and told of
/// events in datagrams. Proxy: to be connected to, and told of all devices in events on a stream.
enum class Strategy { Adapter, Proxy };

/// The device server without its sockets: answers requests from the till, executes commands, sends
/// the events that they cause. One thread at a time.
class Simulator {
public:
  struct Settings {
    Strategy strategy = Strategy::Adapter;
    bool wholeClassname = false; ///< "UPOS_Scanner" as an event's classname instead of "Scanner"
  };

  Simulator(Till till, EventChannel& events, Log& log)
      : Simulator(std::move(till), events, log, Settings()) {}
  Simulator(Till till, EventChannel& events, Log& log, Settings settings)
      : till_(std::move(till)), events_(events), log_(log), settings_(settings) {}

  /// For the status command only.
  void setPorts(std::uint16_t requestPort, std::uint16_t eventPort);

  /// What goes back for one request, be it malformed or not; logs one line.
  Delivery answer(std::string_view request);
  /// Proxy: sends the attached devices, because the service has been connected to.
  void connected();
  /// Proxy: sends the attached devices again if the document is an update request.
  void update(std::string_view request);
  /// Logs a request that cannot be taken, and a connection that came to nothing.
  void refused(std::string_view why);
  void dropped(std::string_view why);
  /// The answer to a request that is refused.
  static Delivery refusal(std::string_view why);

  /// Executes a command other than wait and quit, which belong to whoever feeds the commands.
  /// Throws CommandError when it cannot be done.
  void execute(const Command& command);
  /// Throws CommandError for a command that names a device or a fault that there is not; for
  /// scripts before they start.
  void check(const Command& command);

  const Till& till() const { return till_; }

private:
  Device& device(const std::string& id);
  const std::vector<MisbehaviourHelp>& eventFaults() const;
  std::string eventFault() const;
  Event eventOf(const Device& device, std::string_view type, std::string_view code) const;
  void sendEvent(const Device& device, std::string_view type, std::string_view code);
  std::size_t sendDatagrams(const std::string& document);
  void sendToStream(std::string document);
  void flush();
  std::string sendAll(std::string_view type);
  void set(Device& device, const std::string& field, const std::string& value);
  void list();
  void status();

  Till till_;
  EventChannel& events_;
  Log& log_;
  Settings settings_;
  Misbehaviour misbehaviour_;
  Misbehaviour eventMisbehaviour_;
  std::vector<std::string> heldBack_; ///< until there are as many as the misbehaviour asks for
  std::uint16_t requestPort_ = 0;
  std::uint16_t eventPort_ = 0;
  std::uint64_t requests_ = 0;
  std::uint64_t refusals_ = 0;
  std::uint64_t eventsSent_ = 0;
};

} // namespace till
