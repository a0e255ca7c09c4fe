// quillmonctl doctor

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Wmi.h"
#include "quillmonctl/ZipFile.h"

#include <fmt/format.h>

namespace ctl {
namespace {

constexpr int kMaxBackups = 5;

std::uint32_t dosTimeNow() {
  SYSTEMTIME now = {};
  GetLocalTime(&now);
  const unsigned date = (now.wYear - 1980U) << 9U | static_cast<unsigned>(now.wMonth) << 5U |
                        static_cast<unsigned>(now.wDay);
  const unsigned time = static_cast<unsigned>(now.wHour) << 11U |
                        static_cast<unsigned>(now.wMinute) << 5U |
                        static_cast<unsigned>(now.wSecond) / 2U;
  return date << 16U | time;
}

/// The service's keys as they stand. Of everything else in the file only the names go along:
/// somebody may have put something there that is nobody else's business.
std::string configurationText(const Survey::Configuration& configuration) {
  std::string text = fmt::format("; {}\r\n[default]\r\n", configuration.path);
  for (const Survey::Key& key : configuration.keys) {
    text += fmt::format("{}{}={}\r\n", key.isFromFile ? "" : ";default ", key.name, key.value);
  }
  for (const std::string& name : configuration.unknownKeys) {
    text += fmt::format(";unknown key {}\r\n", name);
  }
  return text;
}

/// Returns the names of what is in the archive.
std::vector<std::string> writeArchive(const std::string& file, const Survey& survey,
                                      const std::vector<Verdict>& verdicts) {
  ZipFile zip(dosTimeNow());
  std::vector<std::string> names;
  const auto add = [&](const std::string& name, std::string_view content) {
    zip.add(name, content);
    names.push_back(name);
  };
  add("status.json", dump(toJson(survey)));
  add("status.txt", toText(survey));
  add("doctor.txt", toText(verdicts));
  add("quillmon.properties", configurationText(survey.configuration));
  if (!survey.trace.configurationFile.empty()) {
    add("zontrace.cfg", fmt::format("BackupCount={}\r\nFileSize={}\r\n", survey.trace.backupCount,
                                    survey.trace.fileSizeLimit));
  }
  for (int i = 0; i <= kMaxBackups && survey.isLogTouchable(); ++i) {
    const std::string suffix = i == 0 ? "" : fmt::format(".{}", i);
    if (const std::optional<std::string> log = readFile(survey.trace.log + suffix)) {
      add(fmt::format("log/Quillmon.log{}", suffix), *log);
    }
  }
  replaceFile(absolutePath(file), zip.bytes());
  return names;
}

} // namespace

ExitCode examine(bool json, const DoctorOptions& options) {
  const ComLibrary com;
  Survey survey = surveySystem(options.seconds, readBaseline(options.expected));
  survey.rights = surveyRights(survey);
  survey.writeFilter = surveyWriteFilter(options.seconds);
  if (options.probesEvents) {
    survey.probe = probeEvents(survey, options.seconds);
  }
  const std::string& archive = options.archive;
  const std::vector<Verdict> verdicts = judge(survey);
  std::vector<std::string> names;
  if (!archive.empty()) {
    names = writeArchive(archive, survey, verdicts);
  }
  if (json) {
    Json report = {{"healthy", isHealthy(verdicts)}, {"checks", toJson(verdicts)}};
    if (!archive.empty()) {
      report["archive"] = {{"file", absolutePath(archive)}, {"contents", names}};
    }
    console::print(dump(report));
  } else {
    std::string text = toText(verdicts);
    if (!archive.empty()) {
      text += fmt::format("\nSupport archive {}:\n", absolutePath(archive));
      for (const std::string& name : names) {
        text += fmt::format("  {}\n", name);
      }
    }
    console::print(text);
  }
  return isHealthy(verdicts) ? ExitCode::Done : ExitCode::FoundWrong;
}

} // namespace ctl
