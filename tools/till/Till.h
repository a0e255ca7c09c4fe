#pragma once

#include "till/Command.h"
#include "till/Delivery.h"
#include "till/EventChannel.h"
#include "till/Inventory.h"
#include "till/Log.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace till {

/// The device server without its sockets: answers requests from the inventory, executes commands,
/// sends the events that they cause. One thread at a time.
class Till {
public:
  struct Settings {
    /// The service connects to nobody: the till connects to it, and tells it of all devices in
    /// events on a stream. Otherwise the service asks, and is told of events in datagrams.
    bool isProxy = false;
    bool wholeClassname = false;   ///< "UPOS_Scanner" as an event's classname, not "Scanner"
    std::uint16_t requestPort = 0; ///< this and the next for the status command only
    std::uint16_t eventPort = 0;
  };

  Till(Inventory inventory, EventChannel& events, Log& log, Settings settings)
      : inventory_(std::move(inventory)), events_(events), log_(log), settings_(settings) {}

  /// What goes back for one request, be it malformed or not; logs one line.
  Delivery answer(std::string_view request);
  /// What goes back for one that is refused unread; logs one line.
  Delivery refuse(std::string_view why);
  /// Logs a connection that came to nothing.
  void dropped(std::string_view why);

  /// Proxy: sends the attached devices, because the service has been connected to.
  void connected();
  /// Proxy: sends the attached devices again if the document is an update request.
  void update(std::string_view request);

  /// Executes a command other than wait and quit, which belong to whoever feeds the commands.
  /// Throws CommandError when it cannot be done.
  void execute(const Command& command);
  /// Throws CommandError for a command that names a device or a fault that there is not; for
  /// scripts before they start.
  void check(const Command& command);

  void setRequestPort(std::uint16_t port) { settings_.requestPort = port; }
  /// "13 devices (12 attached)"
  std::string counts() const;

private:
  Device& device(const std::string& id);
  const std::vector<MisbehaviourHelp>& eventFaults() const;
  std::string_view classnameOf(const Device& device) const;
  std::string eventDocumentOf(const Device& device, std::string_view type,
                              std::string_view code) const;
  void sendEvent(const Device& device, std::string_view type, std::string_view code);
  void hand(Delivery delivery);
  std::size_t sendDatagrams(const std::string& document);
  void sendToStream(std::string document);
  void flush();
  std::string sendAll(std::string_view type);
  void set(Device& device, const std::string& field, const std::string& value);
  void list();
  void status();

  Inventory inventory_;
  EventChannel& events_;
  Log& log_;
  Settings settings_;
  Misbehaviour misbehaviour_;
  Misbehaviour eventMisbehaviour_;
  std::vector<std::string> heldBack_; ///< until there are as many as the misbehaviour asks for
  std::uint64_t requests_ = 0;
  std::uint64_t refusals_ = 0;
  std::uint64_t eventsSent_ = 0;
};

} // namespace till
