// quillmonctl trace on | off | follow

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/LogFollower.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/Service.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/TraceLine.h"
#include "quillmonctl/Wmi.h"
#include "win/Handles.h"

#include <fmt/format.h>

namespace ctl {
namespace {

constexpr DWORD kPollInterval = 250;   // milliseconds between two looks at the log or the event
constexpr DWORD kTimeout = 15'000;     // milliseconds until the service must have traced
constexpr unsigned kAnswerTimeout = 5; // seconds for one answer of the provider

constexpr const char* kNotUndone =
    "The service keeps tracing until it ends: that cannot be undone while it runs.";

void say(bool json, const Json& object, const std::string& text) {
  console::print(json ? dumpLine(object) : text);
}

/// Asks the provider something: a service that traces traces it.
bool hasTraced(const std::string& log) {
  const std::optional<FileStamp> before = fileStamp(log);
  try {
    Wmi().instances("UPOS_LogicalDevice", kAnswerTimeout, [](const Json&) { return true; });
  } catch (const Failure&) { // an answer as good as any
  }
  return fileStamp(log) != before;
}

const char* nameOf(Origin origin) {
  switch (origin) {
  case Origin::Service:
    return "service";
  case Origin::Unclear:
    return "unclear";
  default:
    return "continuation";
  }
}

Json lineJson(const std::string& line, Origin origin) {
  const TraceLine parts = TraceLine::parse(line);
  return {{"time", parts.stamp},
          {"origin", nameOf(origin)},
          {"component", parts.component},
          {"message",
           std::string(parts.lead)
               .append(parts.component)
               .append(parts.message)
               .substr(std::min<std::size_t>(parts.stamp.empty() ? 0 : 2, parts.lead.size()))}};
}

} // namespace

ExitCode switchTraceOn(bool json, bool untilSeen) {
  const win::Handle event(CreateEventW(nullptr, TRUE, TRUE, kTraceEvent));
  if (!event || !SetEvent(event.get())) {
    failWin32("creating the event Global\\TRC_QUILLMON that enables the trace (CreateEvent)");
  }
  const Survey::Service service = surveyService();
  if (untilSeen && !service.isRunning()) {
    throw Failure("waiting for the service to trace: it does not run",
                  "Start it: net start QuillmonServ");
  }
  const Survey::Trace trace = surveyTrace(service);
  say(json, {{"on", true}, {"log", trace.log}},
      fmt::format("The trace is enabled; the log is\n  {}\n{}", trace.log,
                  trace.fileSizeLimit > 0
                      ? ""
                      : wrap("It grows without limit: BackupCount and FileSize in zontrace.cfg "
                             "would bound it (docs/operations.md).",
                             kWidth, 0)));
  if (untilSeen) {
    const ComLibrary com;
    const ULONGLONG end = GetTickCount64() + kTimeout;
    while (!hasTraced(trace.log)) {
      if (GetTickCount64() >= end) {
        throw Failure("waiting for the service to trace: its log does not grow",
                      "Check that the service runs and that its log can be written (quillmonctl "
                      "status).",
                      ExitCode::TimedOut);
      }
      Sleep(kPollInterval);
    }
    say(json, {{"tracing", true}},
        wrap(fmt::format("The service traces. {}", kNotUndone), kWidth, 0));
    return ExitCode::Done;
  }
  console::printError(wrap(fmt::format("Held until Ctrl-C, for services that start meanwhile, too. "
                                       "{}",
                                       kNotUndone),
                           kWidth, 0));
  while (WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0) {
    Sleep(kPollInterval);
  }
  say(json, {{"on", false}}, "Somebody else has switched the trace off.\n");
  return ExitCode::Done;
}

ExitCode switchTraceOff(bool json, bool restart) {
  const ComLibrary com;
  const win::Handle event(OpenEventW(EVENT_MODIFY_STATE, FALSE, kTraceEvent));
  if (!event && GetLastError() != ERROR_FILE_NOT_FOUND) {
    failWin32("opening the event Global\\TRC_QUILLMON (OpenEvent)");
  }
  if (event && !ResetEvent(event.get())) {
    failWin32("resetting the event Global\\TRC_QUILLMON (ResetEvent)");
  }
  const Survey::Service service = surveyService();
  const Survey::Trace trace = surveyTrace(service);
  bool isTracing = service.isRunning() && hasTraced(trace.log);
  bool isRestarted = false;
  if (isTracing && restart) {
    Service handle(SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP);
    handle.stop();
    handle.start();
    isTracing = false;
    isRestarted = true;
  }
  say(json, {{"on", false}, {"service_still_traces", isTracing}, {"restarted", isRestarted}},
      isTracing     ? wrap(fmt::format("No service that starts from now on will trace. {} To "
                                           "restart it: quillmonctl trace off --restart",
                                       kNotUndone),
                           kWidth, 0)
      : isRestarted ? "The service was restarted and does not trace.\n"
                    : "The trace is off.\n");
  return isTracing ? ExitCode::FoundWrong : ExitCode::Done;
}

ExitCode followTrace(bool json, std::size_t lines) {
  const Survey::Trace trace = surveyTrace(surveyService());
  if (trace.rotationDeletes()) {
    throw Failure(fmt::format("following {}: rotation deletes the log (BackupCount is 0), and a "
                              "log that somebody reads at that moment may keep the service from "
                              "writing for good",
                              trace.log),
                  fmt::format("Set BackupCount to 1 or more in {} and restart the service.",
                              trace.configurationFile));
  }
  console::printError(fmt::format("Following {}; Ctrl-C ends.\n", trace.log));
  if (!trace.isSignalled) {
    console::printError("Nothing comes unless the trace is on: quillmonctl trace on\n");
  }
  const bool colour = console::showsColour();
  LogFollower follower(trace.log, lines);
  OriginReader origins;
  for (;; Sleep(kPollInterval)) {
    const std::vector<std::string> arrived = follower.newLines();
    if (follower.hasLostLines()) {
      console::printError("Lines were lost: the log was rotated faster than it was read.\n");
    }
    for (const std::string& line : arrived) {
      const Origin origin = origins.next(line);
      const std::string text = utf8FromAnsi(line.substr(0, line.size() - line.ends_with('\r')));
      console::print(json ? dumpLine(lineJson(text, origin))
                          : toConsoleText(text, origin, colour) + "\n");
    }
  }
}

} // namespace ctl
