#include "quillmonctl/Survey.h"

#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

namespace ctl {
namespace {

using Level = Verdict::Level;
using Verdicts = std::vector<Verdict>;

constexpr std::uint32_t kNotInstalled = 1060;

Json errorJson(const std::optional<SystemError>& error) {
  return error ? Json(describe(*error)) : Json();
}

std::string sizeText(std::uint64_t size) {
  return size < 10'000 ? fmt::format("{} bytes", size) : fmt::format("{} KB", (size + 512) / 1024);
}

bool isInstalled(const Survey& survey) {
  return !survey.service.error || survey.service.error->number != kNotInstalled;
}

std::string traceText(const Survey::Trace& trace) {
  if (trace.isSignalled) {
    return "on (its event is signalled)";
  }
  return trace.hasGrown ? "on, until the service ends (its event is gone)" : "off";
}

void judgeService(const Survey& survey, Verdicts& out) {
  const Survey::Service& service = survey.service;
  if (!isInstalled(survey)) {
    out.push_back({Level::Bad, "service", "not installed", "quillmonctl install"});
    return;
  }
  if (service.error) {
    out.push_back({Level::Bad, "service", describe(*service.error), adviceFor(*service.error)});
    return;
  }
  if (service.isRunning()) {
    out.push_back(
        {Level::Good, "service",
         fmt::format("running, process {}, {} strategy", service.processId, service.strategy()),
         ""});
  } else {
    out.push_back({Level::Bad, "service", service.state, "net start QuillmonServ"});
  }
  if (!service.programExists) {
    out.push_back({Level::Bad, "binary path", fmt::format("{} is missing", service.path.program),
                   "Put the program back, or run quillmonctl uninstall and install."});
  } else if (!service.hijackCandidates.empty()) {
    out.push_back({Level::Bad, "binary path",
                   fmt::format("not quoted, and Windows would start {} first",
                               service.hijackCandidates.front()),
                   "Find out who put that program there and remove it; then quillmonctl uninstall "
                   "and install."});
  } else if (!service.path.hijackCandidates().empty()) {
    out.push_back({Level::Bad, "binary path",
                   fmt::format("has a blank and no quotes: {}", service.pathText),
                   "quillmonctl uninstall, then quillmonctl install, which quotes it."});
  } else {
    out.push_back({Level::Good, "binary path", service.pathText, ""});
  }
  if (service.programVersion != survey.toolVersion) {
    out.push_back({Level::Warning, "version",
                   fmt::format("quillmon.exe {}, quillmonctl {}",
                               service.programVersion.empty() ? "unknown" : service.programVersion,
                               survey.toolVersion),
                   "Install both from one package."});
  } else {
    out.push_back({Level::Good, "version", survey.toolVersion, ""});
  }
  const bool isPlain = service.start == "automatic";
  out.push_back({isPlain ? Level::Good : Level::Warning, "start", service.start,
                 isPlain ? "" : "sc config QuillmonServ start= auto"});
  const bool waitsForWmi =
      std::any_of(service.dependencies.begin(), service.dependencies.end(),
                  [](const std::string& name) { return equalsIgnoreCase(name, "winmgmt"); });
  out.push_back({waitsForWmi ? Level::Warning : Level::Good, "dependency",
                 waitsForWmi ? "on WMI (winmgmt): who stops that stops this service, and nothing "
                               "starts it again"
                             : "not on WMI, which starts when it is asked",
                 waitsForWmi ? "sc config QuillmonServ depend= /" : ""});
  out.push_back(
      {service.restartsAfterFailure ? Level::Good : Level::Warning, "recovery",
       service.restartsAfterFailure ? "restarted after a failure" : "not restarted after a failure",
       service.restartsAfterFailure
           ? ""
           : "sc failure QuillmonServ reset= 86400 actions= restart/60000"});
}

void judgeEvents(const Survey& survey, Verdicts& out) {
  const std::optional<SystemError>& refusal = survey.wmi.subscriptionError;
  const std::optional<Survey::Probe>& probe = survey.probe;
  if (refusal) {
    out.push_back({Level::Bad, "events", describe(*refusal), adviceFor(*refusal)});
  } else if (!probe) {
    out.push_back({Level::Good, "events", "a subscription is accepted", ""});
  } else if (probe->error) {
    const std::string advice = adviceFor(*probe->error);
    out.push_back(
        {Level::Bad, "events", fmt::format("not probed: {}", describe(*probe->error)),
         advice.empty() ? "Look for what keeps local programs from the event port." : advice});
  } else if (probe->sent == 0) {
    out.push_back({Level::Warning, "events", "not probed: the event port is not open",
                   "See what is said of the service and of its event port."});
  } else if (probe->arrived) {
    out.push_back({Level::Good, "events",
                   fmt::format("events arrive: a probe did after {} ms", probe->milliseconds), ""});
  } else {
    out.push_back({Level::Bad, "events",
                   fmt::format("events are dropped: {} probes did not arrive", probe->sent),
                   "Restart the service: quillmonctl repair"});
  }
}

void judgeWmi(const Survey& survey, Verdicts& out) {
  const Survey::Wmi& wmi = survey.wmi;
  if (wmi.error) {
    out.push_back({Level::Bad, "WMI", describe(*wmi.error), adviceFor(*wmi.error)});
    return;
  }
  if (wmi.missingClasses.empty()) {
    out.push_back({Level::Good, "WMI classes", fmt::format("all {} are there", wmi.classes), ""});
  } else {
    out.push_back(
        {Level::Bad, "WMI classes",
         fmt::format("{} of {} are missing: {}", wmi.missingClasses.size(),
                     wmi.classes + wmi.missingClasses.size(),
                     truncated(fmt::format("{}", fmt::join(wmi.missingClasses, ", ")), 60)),
         "quillmonctl repair"});
  }
  if (wmi.missingRegistrations.empty()) {
    out.push_back({Level::Good, "WMI provider", "registered for instances and events", ""});
  } else {
    out.push_back({Level::Bad, "WMI provider",
                   fmt::format("not registered: {}", fmt::join(wmi.missingRegistrations, ", ")),
                   "quillmonctl repair"});
  }
  if (wmi.timedOut) {
    out.push_back({Level::Bad, "devices", "no answer in time",
                   "The device server takes requests and does not answer: restart it."});
  } else if (wmi.answerError) {
    out.push_back({Level::Bad, "devices", describe(*wmi.answerError), adviceFor(*wmi.answerError)});
  } else if (wmi.listed.empty()) {
    out.push_back({Level::Warning, "devices", "the provider answers, without a single device",
                   "Check that the device server has devices, and that this prompt may read them "
                   "(run as administrator)."});
  } else {
    out.push_back(
        {Level::Good, "devices", fmt::format("the provider lists {}", wmi.listed.size()), ""});
  }
  judgeEvents(survey, out);
}

void judgeComparison(const Comparison& comparison, Verdicts& out) {
  const char* const check = "expected";
  if (!comparison.missing.empty()) {
    out.push_back({Level::Bad, check,
                   fmt::format("{} of {} missing: {}", comparison.missing.size(),
                               comparison.expected, namesOf(comparison.missing)),
                   "Look for their cables and power, then ask the device server."});
  }
  if (!comparison.added.empty()) {
    out.push_back({Level::Warning, check,
                   fmt::format("{} new: {}", comparison.added.size(), namesOf(comparison.added)),
                   "If they belong here: quillmonctl expect --from-now FILE"});
  }
  if (comparison.missing.empty() && comparison.added.empty()) {
    out.push_back({Level::Good, check,
                   fmt::format("all {} devices are there, and no other", comparison.expected), ""});
  }
}

void judgeConfiguration(const Survey& survey, Verdicts& out) {
  const Survey::Configuration& configuration = survey.configuration;
  const std::size_t before = out.size();
  if (configuration.error) {
    out.push_back({Level::Bad, "configuration", describe(*configuration.error),
                   adviceFor(*configuration.error)});
  }
  for (const Survey::Key& key : configuration.keys) {
    if (!key.problem.empty()) {
      out.push_back({Level::Bad, "configuration",
                     fmt::format("{} = {} (the service reads {}): {}", key.name,
                                 printable(key.value), key.effective, key.problem),
                     fmt::format("quillmonctl config set {} VALUE", key.name)});
    }
  }
  for (const std::string& problem : configuration.problems) {
    out.push_back(
        {Level::Warning, "configuration", problem, fmt::format("Edit {}.", configuration.path)});
  }
  for (const std::string& name : configuration.unknownKeys) {
    out.push_back({Level::Warning, "configuration",
                   fmt::format("{} is no key of the service", printable(name)),
                   "Remove the line, or mend the key's name."});
  }
  if (out.size() == before) {
    out.push_back({Level::Good, "configuration",
                   configuration.exists ? configuration.path : "no file: the defaults hold", ""});
  }
}

void judgeSockets(const Survey& survey, Verdicts& out) {
  const Survey::Sockets& sockets = survey.sockets;
  const bool isProxy = survey.service.path.isProxy();
  if (!isProxy) {
    const std::optional<SystemError>& error = sockets.requestError;
    out.push_back(
        {error ? Level::Bad : Level::Good, "device server",
         error ? fmt::format("port {}: {}", sockets.requestPort, describe(*error))
               : fmt::format("reachable on port {}", sockets.requestPort),
         error ? "Start the device server, or set upos.requestSocket.Port to its port." : ""});
  }
  if (!survey.service.isRunning()) {
    return;
  }
  if (!sockets.eventPortOpen) {
    out.push_back(
        {Level::Bad, "event port",
         fmt::format("the service does not listen on {} {}", isProxy ? "TCP" : "UDP",
                     sockets.eventPort),
         "Look for another program on that port (netstat -ano) and restart the service."});
  } else if (isProxy && sockets.deviceServers == 0) {
    out.push_back({Level::Bad, "device server",
                   fmt::format("none is connected to port {}", sockets.eventPort),
                   "Start the device server, or set provider.eventSocket.Port to the port that it "
                   "connects to."});
  } else {
    out.push_back({Level::Good, "event port",
                   isProxy ? fmt::format("TCP {}, {} device server(s) connected", sockets.eventPort,
                                         sockets.deviceServers)
                           : fmt::format("UDP {} is open", sockets.eventPort),
                   ""});
  }
}

void judgeTrace(const Survey& survey, Verdicts& out) {
  const Survey::Trace& trace = survey.trace;
  if (trace.isOn()) {
    const bool bounded = trace.fileSizeLimit > 0;
    out.push_back({bounded ? Level::Good : Level::Warning, "trace",
                   fmt::format("{}; {}", traceText(trace),
                               bounded ? "the log is rotated" : "the log grows without limit"),
                   bounded ? ""
                           : "Set BackupCount and FileSize in zontrace.cfg, or end the trace: "
                             "quillmonctl trace off --restart"});
  } else {
    out.push_back({Level::Good, "trace", "off", ""});
  }
  if (trace.rotationDeletes()) {
    out.push_back({Level::Warning, "trace log",
                   "rotation deletes it, because BackupCount is 0 in zontrace.cfg",
                   "Set BackupCount to 1 or more and restart the service."});
  } else if (trace.sizeComesFirst) {
    out.push_back(
        {Level::Warning, "trace log",
         "FileSize stands before BackupCount in zontrace.cfg: a log that is already too long "
         "is deleted before the number of copies is known",
         "Put BackupCount first and restart the service."});
  }
}

void judgeRights(const Survey& survey, Verdicts& out) {
  const std::vector<RightsProblem> problems =
      problemsOf(survey.rights.paths, survey.rights.administrators);
  for (const RightsProblem& problem : problems) {
    out.push_back(
        {problem.isGrave ? Level::Bad : Level::Warning, "rights", problem.finding, problem.advice});
  }
  if (problems.empty()) {
    out.push_back({Level::Good, "rights",
                   "only administrators may change program, log and configuration", ""});
  }
}

void judgeWriteFilter(const Survey& survey, Verdicts& out) {
  const Survey::WriteFilter& filter = survey.writeFilter;
  if (filter.protects || filter.willProtect) {
    const char* const from = !filter.protects      ? "from the next start on "
                             : !filter.willProtect ? "until the next start "
                                                   : "";
    out.push_back({Level::Warning, "write filter",
                   fmt::format("{}{} is protected (UWF): a restart forgets what was installed, "
                               "configured or logged meanwhile",
                               from, filter.volume),
                   "Change the machine while the filter is off (uwfmgr filter disable, restart), "
                   "and exclude the log's folder (uwfmgr file add-exclusion)."});
  }
}

} // namespace

std::vector<Verdict> judge(const Survey& survey) {
  Verdicts verdicts;
  judgeService(survey, verdicts);
  judgeWmi(survey, verdicts);
  if (survey.comparison) {
    judgeComparison(*survey.comparison, verdicts);
  }
  judgeConfiguration(survey, verdicts);
  judgeSockets(survey, verdicts);
  judgeTrace(survey, verdicts);
  judgeRights(survey, verdicts);
  judgeWriteFilter(survey, verdicts);
  return verdicts;
}

bool isHealthy(const std::vector<Verdict>& verdicts) {
  return std::none_of(verdicts.begin(), verdicts.end(),
                      [](const Verdict& verdict) { return verdict.level == Level::Bad; });
}

Json toJson(const Survey& survey) {
  const Survey::Service& service = survey.service;
  const Survey::Wmi& wmi = survey.wmi;
  const Survey::Sockets& sockets = survey.sockets;
  const Survey::Trace& trace = survey.trace;
  Json keys = Json::array();
  for (const Survey::Key& key : survey.configuration.keys) {
    keys.push_back({{"key", key.name},
                    {"value", key.value},
                    {"effective", key.effective},
                    {"source", key.isFromFile ? "file" : "default"},
                    {"nonsense", key.problem.empty() ? Json() : Json(key.problem)}});
  }
  return {
      {"version", survey.toolVersion},
      {"system", survey.system},
      {"service",
       {{"installed", isInstalled(survey)},
        {"error", errorJson(service.error)},
        {"state", service.state},
        {"process", service.processId},
        {"binary_path", service.pathText},
        {"program_exists", service.programExists},
        {"program_version", service.programVersion},
        {"strategy", service.strategy()},
        {"start", service.start},
        {"account", service.account},
        {"depends_on", service.dependencies},
        {"restarts_after_failure", service.restartsAfterFailure}}},
      {"wmi",
       {{"error", errorJson(wmi.error)},
        {"classes", wmi.classes},
        {"missing_classes", wmi.missingClasses},
        {"missing_registrations", wmi.missingRegistrations},
        {"answers", wmi.answers},
        {"devices", wmi.listed.size()},
        {"answer_error", errorJson(wmi.answerError)},
        {"subscription_error", errorJson(wmi.subscriptionError)}}},
      {"expected", survey.comparison ? toJson(*survey.comparison) : Json()},
      {"configuration",
       {{"file", survey.configuration.path},
        {"exists", survey.configuration.exists},
        {"error", errorJson(survey.configuration.error)},
        {"keys", std::move(keys)},
        {"unknown_keys", survey.configuration.unknownKeys},
        {"problems", survey.configuration.problems}}},
      {"sockets",
       {{"request_port", sockets.requestPort},
        {"request_port_reachable", service.path.isProxy() ? Json() : Json(!sockets.requestError)},
        {"request_error", errorJson(sockets.requestError)},
        {"event_port", sockets.eventPort},
        {"event_port_open", sockets.eventPortOpen},
        {"device_servers_connected",
         service.path.isProxy() ? Json(sockets.deviceServers) : Json()}}},
      {"trace",
       {{"on", trace.isOn()},
        {"event_signalled", trace.isSignalled},
        {"log", trace.log},
        {"log_size", trace.size ? Json(*trace.size) : Json()},
        {"configuration_file", trace.configurationFile},
        {"file_size_limit", trace.fileSizeLimit},
        {"backup_count", trace.backupCount}}},
  };
}

std::string toText(const Survey& survey) {
  const Survey::Service& service = survey.service;
  const Survey::Wmi& wmi = survey.wmi;
  const Survey::Sockets& sockets = survey.sockets;
  const Survey::Trace& trace = survey.trace;
  using Lines = std::vector<std::pair<std::string, std::string>>;
  Lines lines;
  if (!isInstalled(survey)) {
    lines.emplace_back("service", "not installed");
  } else if (service.error) {
    lines.emplace_back("service", describe(*service.error));
  } else {
    lines.emplace_back("service", service.isRunning()
                                      ? fmt::format("running (process {})", service.processId)
                                      : service.state);
    lines.emplace_back("binary path",
                       service.pathText + (service.programExists ? "" : " (missing)"));
    lines.emplace_back("strategy", service.strategy());
    lines.emplace_back("start", service.start);
  }
  if (wmi.error) {
    lines.emplace_back("WMI", describe(*wmi.error));
  } else {
    lines.emplace_back("WMI classes",
                       wmi.missingClasses.empty()
                           ? fmt::format("all {} present", wmi.classes)
                           : fmt::format("{} of {} missing", wmi.missingClasses.size(),
                                         wmi.classes + wmi.missingClasses.size()));
    lines.emplace_back(
        "WMI provider",
        wmi.missingRegistrations.empty()
            ? "registered"
            : fmt::format("not registered: {}", fmt::join(wmi.missingRegistrations, ", ")));
    lines.emplace_back("answering", wmi.timedOut ? "no answer in time"
                                    : wmi.answerError
                                        ? fmt::format("no: {}", describe(*wmi.answerError))
                                        : fmt::format("yes, {} devices", wmi.listed.size()));
  }
  if (survey.comparison) {
    const Comparison& comparison = *survey.comparison;
    lines.emplace_back("missing", comparison.missing.empty()
                                      ? fmt::format("none of {}", comparison.expected)
                                      : namesOf(comparison.missing));
    lines.emplace_back("new", comparison.added.empty() ? "none" : namesOf(comparison.added));
  }
  if (service.path.isProxy()) {
    lines.emplace_back("device server",
                       sockets.deviceServers == 0
                           ? fmt::format("none connected to event port {}", sockets.eventPort)
                           : fmt::format("{} connected to event port {}", sockets.deviceServers,
                                         sockets.eventPort));
  } else {
    lines.emplace_back("device server",
                       sockets.requestError
                           ? fmt::format("not reachable on request port {}: {}",
                                         sockets.requestPort, describe(*sockets.requestError))
                           : fmt::format("reachable on request port {}", sockets.requestPort));
    lines.emplace_back("event port", fmt::format("UDP {}, {}", sockets.eventPort,
                                                 sockets.eventPortOpen ? "open" : "not open"));
  }
  lines.emplace_back("trace", traceText(trace));
  lines.emplace_back("trace log", fmt::format("{} ({})", trace.log,
                                              trace.size ? sizeText(*trace.size) : "no such file"));
  lines.emplace_back("configuration",
                     survey.configuration.path + (survey.configuration.exists ? "" : " (no file)"));
  std::string text = pairs(lines);

  std::vector<std::vector<std::string>> rows;
  for (const Survey::Key& key : survey.configuration.keys) {
    rows.push_back({key.name, key.value, key.isFromFile ? "file" : "default",
                    key.problem.empty() ? "" : fmt::format("NONSENSE, read as {}", key.effective)});
  }
  text += "\n" + table({"KEY", "VALUE", "FROM", ""}, rows);
  for (const std::string& name : survey.configuration.unknownKeys) {
    text += wrap(fmt::format("unknown key: {}", printable(name)), kWidth, 2);
  }
  for (const std::string& problem : survey.configuration.problems) {
    text += wrap(printable(problem), kWidth, 2);
  }
  return text;
}

Json toJson(const std::vector<Verdict>& verdicts) {
  Json json = Json::array();
  for (const Verdict& verdict : verdicts) {
    json.push_back({{"check", verdict.check},
                    {"verdict", verdict.level == Level::Good      ? "good"
                                : verdict.level == Level::Warning ? "warning"
                                                                  : "bad"},
                    {"finding", verdict.finding},
                    {"advice", verdict.advice}});
  }
  return json;
}

std::string toText(const std::vector<Verdict>& verdicts) {
  std::size_t width = 0;
  for (const Verdict& verdict : verdicts) {
    width = std::max(width, verdict.check.size());
  }
  std::string text;
  for (const Verdict& verdict : verdicts) {
    const char* const mark = verdict.level == Level::Good      ? "ok  "
                             : verdict.level == Level::Warning ? "WARN"
                                                               : "BAD ";
    const std::size_t indent = width + 8;
    text +=
        wrap(fmt::format("{}  {:<{}}  {}", mark, verdict.check, width, printable(verdict.finding)),
             kWidth, indent);
    if (!verdict.advice.empty()) {
      text += wrap(fmt::format("{}-> {}", std::string(indent, ' '), verdict.advice), kWidth,
                   indent + 3);
    }
  }
  return text;
}

} // namespace ctl
