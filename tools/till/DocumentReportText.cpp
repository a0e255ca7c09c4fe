#include "till/DocumentReportText.h"

#include "quillmonctl/Text.h"

#include <fmt/format.h>

#include <algorithm>

namespace till {
namespace {

using ctl::Json;
using Kind = DocumentReport::Kind;
using Strategy = Finding::Strategy;

constexpr std::size_t kMostLines = 50;

const char* word(Strategy strategy) {
  switch (strategy) {
  case Strategy::Adapter:
    return "adapter";
  case Strategy::Proxy:
    return "proxy";
  case Strategy::Both:
    break;
  }
  return "both";
}

const char* word(Kind kind) {
  switch (kind) {
  case Kind::Answer:
    return "answer";
  case Kind::Event:
    return "event";
  case Kind::Unreadable:
    break;
  }
  return "unreadable";
}

std::string outcome(const DocumentReport& report) {
  switch (report.kind) {
  case Kind::Answer:
    return *report.status == 0 ? "an answer, read (status 0)" : "an error answer (status 1)";
  case Kind::Event:
    return "an event, read";
  case Kind::Unreadable:
    break;
  }
  return fmt::format(
      "unreadable (status -1): {}{}", ctl::printable(report.message),
      report.line == 0 ? "" : fmt::format(" at line {}, column {}", report.line, report.column));
}

std::string line(const EventVerdict& verdict) {
  if (verdict.strategy == Strategy::Adapter) {
    return fmt::format("adapter strategy: {}", verdict.published ? "published" : "not published");
  }
  return fmt::format("proxy strategy, device {}: {}; in the cache: {}",
                     verdict.isCached ? "known" : "not known",
                     verdict.published ? "published" : "not published", verdict.effect);
}

void appendInstances(std::string& text, const DocumentReport& report) {
  const auto& all = report.instances;
  const auto kept = static_cast<std::size_t>(
      std::ranges::count_if(all, [](const InstanceVerdict& each) { return each.kept; }));
  text += ctl::wrap(fmt::format("{} instance{}: {} kept, {} discarded", all.size(),
                                all.size() == 1 ? "" : "s", kept, all.size() - kept),
                    ctl::kWidth, 2);
  std::vector<std::vector<std::string>> rows;
  for (std::size_t i = 0; i < std::min(all.size(), kMostLines); ++i) {
    rows.push_back({std::to_string(i + 1), all[i].className, all[i].device,
                    all[i].kept ? "kept" : "discarded"});
  }
  if (!rows.empty()) {
    text += "\n" + ctl::table({"INSTANCE", "CLASS", "DEVICE", "RESULT"}, rows);
  }
  if (rows.size() < all.size()) {
    text += fmt::format("... and {} more\n", all.size() - rows.size());
  }
}

} // namespace

std::string toText(const Finding& finding) {
  std::string where;
  const auto append = [&where](const std::string& part) {
    where += (where.empty() ? "" : ", ") + part;
  };
  if (finding.instance != 0) {
    append(fmt::format("instance {}{}", finding.instance,
                       finding.device.empty() ? "" : fmt::format(" ({})", finding.device)));
  } else if (!finding.device.empty()) {
    append(finding.device);
  }
  if (!finding.field.empty()) {
    append(fmt::format("field {}", finding.field));
  }
  if (finding.strategy != Strategy::Both) {
    append(fmt::format("{} strategy", word(finding.strategy)));
  }
  return ctl::printable(fmt::format("{}{}{}", where, where.empty() ? "" : ": ", finding.text));
}

std::string toText(const DocumentReport& report, const std::string& name) {
  std::string text = ctl::wrap(fmt::format("{}: {} bytes: {}", name, report.bytes, outcome(report)),
                               ctl::kWidth, 2);
  if (report.kind == Kind::Answer && *report.status == 0) {
    appendInstances(text, report);
  }
  if (report.event) {
    const EventTexts& event = *report.event;
    text += ctl::wrap(
        ctl::printable(fmt::format("type \"{}\", classname \"{}\", device \"{}\", code \"{}\"",
                                   event.type, event.classname, event.device, event.code)),
        ctl::kWidth, 2);
    for (const EventVerdict& each : report.eventVerdicts) {
      text += ctl::wrap(line(each), ctl::kWidth, 2);
    }
  }
  if (!report.findings.empty()) {
    text += "\n";
  }
  const std::size_t shown = std::min(report.findings.size(), kMostLines);
  for (std::size_t i = 0; i < shown; ++i) {
    const Finding& each = report.findings[i];
    text +=
        ctl::wrap(fmt::format("{}  {}", each.level == Finding::Level::Note ? "note   " : "PROBLEM",
                              toText(each)),
                  ctl::kWidth, 9);
  }
  if (const std::size_t more = report.findings.size() - shown + report.furtherFindings; more > 0) {
    text += fmt::format("... and {} more\n", more);
  }
  if (report.kind == Kind::Answer) {
    text += "\nIn the proxy strategy no answer is read: devices come as events.\n";
  }
  return text;
}

Json toJson(const DocumentReport& report) {
  Json json = {{"kind", word(report.kind)},   {"bytes", report.bytes}, {"status", nullptr},
               {"message", nullptr},          {"line", nullptr},       {"column", nullptr},
               {"code_page", report.codePage}};
  if (report.status) {
    json["status"] = *report.status;
  }
  if (report.kind == Kind::Unreadable) {
    json["message"] = report.message;
  }
  if (report.line != 0) {
    json["line"] = report.line;
    json["column"] = report.column;
  }
  if (report.kind == Kind::Answer) {
    json["instances"] = Json::array();
    for (const InstanceVerdict& each : report.instances) {
      json["instances"].push_back(
          {{"class", each.className}, {"device", each.device}, {"kept", each.kept}});
    }
  }
  if (report.event) {
    json["event"] = {{"type", report.event->type},
                     {"classname", report.event->classname},
                     {"device", report.event->device},
                     {"code", report.event->code}};
    json["verdicts"] = Json::array();
    for (const EventVerdict& each : report.eventVerdicts) {
      Json verdict = {{"strategy", word(each.strategy)}, {"published", each.published}};
      if (each.strategy == Strategy::Proxy) {
        verdict["device_known"] = each.isCached;
        verdict["cache"] = each.effect;
      }
      json["verdicts"].push_back(std::move(verdict));
    }
  }
  json["findings"] = Json::array();
  for (const Finding& each : report.findings) {
    Json finding = {{"level", each.level == Finding::Level::Note ? "note" : "problem"},
                    {"strategy", word(each.strategy)},
                    {"code", each.code},
                    {"instance", nullptr},
                    {"device", each.device},
                    {"field", each.field},
                    {"text", each.text}};
    if (each.instance != 0) {
      finding["instance"] = each.instance;
    }
    json["findings"].push_back(std::move(finding));
  }
  json["further_findings"] = report.furtherFindings;
  return json;
}

} // namespace till
