#include "quillmonctl/TraceLine.h"

#include "quillmonctl/Text.h"

#include <algorithm>

namespace ctl {
namespace {

constexpr std::string_view kStampPattern = "00/00/0000 00:00:00";
constexpr std::string_view kBlanks = "  "; // behind the stamp
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kCyan = "\x1b[36m";
constexpr std::string_view kPlain = "\x1b[0m";

/// The service's messages that hold no text of a peer, a client or a file; "#" is a number.
constexpr std::string_view kOwnMessages[] = {
    "<<<< CreateInstanceEnumAsync >>>>",
    "<<<< GetObjectAsync >>>>",
    "<<CreateInstanceEnumAsync>> * CheckAccess() DENIED!! quitting... * Semaphore released!!",
    "<<CreateInstanceEnumAsync>> *  Screen semaphore wait timed out!",
    "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: # *",
    "<<GetObjectAsync>> * Get Instance Path failed",
    "<<GetObjectAsync>> * Screen Semaphore wait timed out!",
    "<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=#",
    "<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again.",
    "<<UPOSAdapter(#) created",
    "<<UPOSAdapter(#) destroyed",
    "<<UPOSAdapter::enumerateInstances>>: Returning request",
    "<<UPOSAdapter::enumerateInstances>>: calling xml->getInstances()",
    "<<UPOSAdapter::enumerateInstances>>: xml->getInstances() returned",
    "<<UPOSAdapter::getInstance>>: Invoking request",
    "<<UPOSConnector::Receive2()>> Calling clone",
    "<<UPOSConnector::Receive2()>> Calling clone OUT_MARK",
    "<<UPOSXMLAdapter>> instanceList(error) length: #",
    "<<UPOSXMLAdapter>> instanceList(instance) length: #",
    "<<XMLAdapter>>: Creating socket",
    "<<XMLAdapter>>: Just recently Java failed, I will skip it for now...",
    "<<XMLAdapter>>: Receiving data",
    ("<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: #)... Will reject "
     "requests for the next # milliseconds..."),
    "<<configureTimers>>: CreateTimerQueue() succeeded!!",
    "<<configureTimers>>: Creating Timer queue...",
    "<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
    "<<configureTimers>>: Timeout is # milliseconds.",
    "<<fromXML>> Discarding NON-ORVEX device",
    ("<<signalServerIsOfflineFor5Seconds>>: Java server is down, will avoid attempts for # "
     "milliseconds..."),
    "Adding client #",
    "Deleting client: #",
    "GetIntanceByPath: Number of Keys: #",
    "GetIntanceByPath: Number of Props In Instance: #",
    "GetIntanceByPath: Path: ''",
    "No configuration file found, disabling settings",
    "Polling time set to #",
    "Selecting ProxyImp strategy",
    "Starting Interactively",
    "Starting listening in TCPServer",
    "[ServiceDispatch]Success",
    "[Process] exit t_Result = #",
    "[Process_DecoupledInstance] exit t_Result = #",
    "[RegisterDecoupledInstance] CreateInstance t_Result = #",
    "[RegisterDecoupledInstance] exit t_Result = #",
};

bool matchesPattern(std::string_view text, std::string_view pattern) {
  for (const char c : pattern) {
    if (c != '#') {
      if (!text.starts_with(c)) {
        return false;
      }
      text.remove_prefix(1);
      continue;
    }
    text.remove_prefix(text.starts_with('-') ? 1 : 0);
    const std::size_t end = std::min(text.find_first_not_of("0123456789ABCDEF"), text.size());
    if (end == 0) {
      return false;
    }
    text.remove_prefix(end);
  }
  return text.empty();
}

bool isStamp(std::string_view text) {
  return std::equal(
      text.begin(), text.end(), kStampPattern.begin(), kStampPattern.end(),
      [](char c, char pattern) { return pattern == '0' ? c >= '0' && c <= '9' : c == pattern; });
}

std::string_view takeFront(std::string_view& text, std::size_t size) {
  const std::string_view piece = text.substr(0, size);
  text.remove_prefix(piece.size());
  return piece;
}

} // namespace

TraceLine TraceLine::parse(std::string_view line) {
  TraceLine result;
  if (isStamp(line.substr(0, kStampPattern.size()))) {
    result.stamp = takeFront(line, kStampPattern.size());
  }
  result.lead = takeFront(line, std::min(line.find_first_not_of(" \t*"), line.size()));
  const bool angled = line.starts_with("<<") && !line.starts_with("<<<");
  if (angled || line.starts_with("[")) {
    const std::string_view close = angled ? ">>" : "]";
    if (const std::size_t end = line.find(close); end != std::string_view::npos) {
      result.component = takeFront(line, end + close.size());
    }
  }
  result.message = line;
  return result;
}

Origin OriginReader::next(std::string_view line) {
  const bool follows = complete_;
  complete_ = line.ends_with('\r');
  line.remove_suffix(complete_ ? 1 : 0);
  const TraceLine parts = TraceLine::parse(line);
  if (!follows || parts.stamp.empty()) {
    // Some of the service's own messages end in a line end, which leaves an empty line.
    holdsText_ = holdsText_ || !line.empty();
    return Origin::Continuation;
  }
  const bool mayBeText = holdsText_;
  const std::string_view message =
      line.substr(std::min(line.size(), parts.stamp.size() + kBlanks.size()));
  holdsText_ = std::ranges::none_of(
      kOwnMessages, [&](std::string_view pattern) { return matchesPattern(message, pattern); });
  return mayBeText ? Origin::Unclear : Origin::Service;
}

std::string toConsoleText(std::string_view line, Origin origin, bool colour) {
  std::string text = origin == Origin::Service ? "  " : origin == Origin::Unclear ? "? " : "| ";
  if (!colour) {
    return text + printable(line, true);
  }
  const TraceLine parts = TraceLine::parse(line);
  if (!parts.stamp.empty()) {
    text.append(kDim).append(parts.stamp).append(kPlain);
  }
  text += printable(parts.lead, true);
  if (!parts.component.empty()) {
    text.append(kCyan).append(printable(parts.component)).append(kPlain);
  }
  return text + printable(parts.message, true);
}

bool usesColour(bool isConsole, const char* noColor) {
  return isConsole && (noColor == nullptr || *noColor == '\0');
}

} // namespace ctl
