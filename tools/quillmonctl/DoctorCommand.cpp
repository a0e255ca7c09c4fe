// quillmonctl doctor

#include "quillmonctl/Console.h"
#include "quillmonctl/Invocation.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Wmi.h"
#include "quillmonctl/ZipFile.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <memory>

namespace ctl {
namespace {

constexpr int kMostCopies = 5;

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
  // As with "trace follow": nobody may hold a log open that the service is about to delete.
  const bool isLogTouchable = !survey.trace.rotationDeletes() || !survey.service.isRunning();
  for (int i = 0; i <= kMostCopies && isLogTouchable; ++i) {
    const std::string suffix = i == 0 ? "" : fmt::format(".{}", i);
    if (const std::optional<std::string> log = readFile(survey.trace.log + suffix)) {
      add(fmt::format("log/Quillmon.log{}", suffix), *log);
    }
  }
  replaceFile(absolutePath(file), zip.bytes());
  return names;
}

ExitCode examine(const Invocation& invocation, unsigned seconds, const std::string& archive) {
  const ComLibrary com;
  const Survey survey = surveySystem(seconds);
  const std::vector<Verdict> verdicts = judge(survey);
  std::vector<std::string> names;
  if (!archive.empty()) {
    names = writeArchive(archive, survey, verdicts);
  }
  if (invocation.json) {
    Json json = {{"healthy", isHealthy(verdicts)}, {"checks", toJson(verdicts)}};
    if (!archive.empty()) {
      json["archive"] = {{"file", absolutePath(archive)}, {"contents", names}};
    }
    console::print(dump(json));
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

} // namespace

void addDoctorCommand(CLI::App& app, Invocation& invocation) {
  struct Options {
    unsigned timeout = 10;
    std::string archive;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const doctor =
      app.add_subcommand("doctor", "Every check that support asks for, one verdict a line");
  doctor->add_option("--timeout", options->timeout, "Seconds to wait for the provider's answer")
      ->capture_default_str();
  doctor->add_option("--archive", options->archive,
                     "Pack status, configuration and logs into this ZIP file for support");
  doctor->callback([&invocation, options] {
    invocation.command = [&invocation, options] {
      return examine(invocation, options->timeout, options->archive);
    };
  });
}

} // namespace ctl
