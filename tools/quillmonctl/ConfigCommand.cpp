// quillmonctl config check | show | set

#include "quillmonctl/Commands.h"
#include "quillmonctl/ConfigKeys.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/PropertiesFile.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>

namespace ctl {
namespace {

Survey::Configuration readConfiguration() {
  Survey::Configuration configuration = surveyConfiguration();
  if (configuration.error) {
    throw Failure(fmt::format("reading {}", configuration.path), *configuration.error,
                  adviceFor(*configuration.error));
  }
  return configuration;
}

/// What is wrong with the file, a line each.
std::vector<std::string> findings(const Survey::Configuration& configuration) {
  std::vector<std::string> lines;
  for (const Survey::Key& key : configuration.keys) {
    if (!key.problem.empty()) {
      lines.push_back(fmt::format("{} = {}: {}; the service reads {}", key.name, key.value,
                                  key.problem, key.effective));
    }
  }
  for (const std::string& name : configuration.unknownKeys) {
    lines.push_back(fmt::format("{}: no key of the service; it is ignored", name));
  }
  lines.insert(lines.end(), configuration.problems.begin(), configuration.problems.end());
  return lines;
}

std::string knownKeys() {
  std::string names;
  for (const ConfigKey& key : configKeys()) {
    names.append(names.empty() ? "" : ", ").append(key.name);
  }
  return names;
}

} // namespace

ExitCode checkConfiguration(bool json) {
  const Survey::Configuration configuration = readConfiguration();
  const std::vector<std::string> lines = findings(configuration);
  if (json) {
    console::print(dump({{"file", configuration.path},
                         {"exists", configuration.exists},
                         {"good", lines.empty()},
                         {"findings", lines}}));
  } else {
    std::string text = fmt::format("{}: {}\n", configuration.path,
                                   !configuration.exists ? "no file, the defaults hold"
                                   : lines.empty()       ? "good"
                                                         : "something is wrong");
    for (const std::string& line : lines) {
      text += wrap(fmt::format("  {}", printable(line)), kWidth, 4);
    }
    console::print(text);
  }
  return lines.empty() ? ExitCode::Done : ExitCode::FoundWrong;
}

ExitCode showConfiguration(bool json) {
  const Survey::Configuration configuration = readConfiguration();
  Json all = Json::array();
  std::string text = fmt::format("{}{}\n\n", configuration.path,
                                 configuration.exists ? "" : " (no file: the defaults hold)");
  for (const Survey::Key& key : configuration.keys) {
    const ConfigKey& known = *findConfigKey(key.name);
    text += wrap(fmt::format("{} = {} ({})", key.name, printable(key.value),
                             key.isFromFile ? "from the file" : "default"),
                 kWidth, 4);
    text +=
        wrap(fmt::format("    {}{}{}", known.unit, *known.unit != '\0' ? " " : "", known.meaning),
             kWidth, 4);
    if (!key.problem.empty()) {
      text +=
          wrap(fmt::format("    NONSENSE: {}; the service reads {}", key.problem, key.effective),
               kWidth, 4);
    }
    all.push_back({{"key", key.name},
                   {"value", key.value},
                   {"effective", key.effective},
                   {"source", key.isFromFile ? "file" : "default"},
                   {"default", known.defaultValue},
                   {"unit", known.unit},
                   {"meaning", known.meaning},
                   {"nonsense", key.problem.empty() ? Json() : Json(key.problem)}});
  }
  console::print(json ? dump({{"file", configuration.path},
                              {"exists", configuration.exists},
                              {"keys", std::move(all)}})
                      : text);
  return ExitCode::Done;
}

ExitCode setConfiguration(bool json, const std::string& name, const std::string& value) {
  const ConfigKey* const key = findConfigKey(name);
  if (key == nullptr) {
    throw Failure(fmt::format("setting {}: no key of the service", name),
                  fmt::format("The keys are {}.", knownKeys()), ExitCode::WrongCommandLine);
  }
  if (const std::string why = validationError(*key, value); !why.empty()) {
    throw Failure(fmt::format("setting {} to {}: it {}", key->name, value, why),
                  "Nothing was changed. Give another value.", ExitCode::WrongCommandLine);
  }
  const Survey::Configuration before = readConfiguration();
  PropertiesFile file(readFile(before.path).value_or(""));
  const std::vector<std::string> problems = file.problems();
  if (!problems.empty() && problems.front().starts_with("line 1: ") &&
      problems.front().find("save") != std::string::npos) {
    throw Failure(fmt::format("editing {}: {}", before.path, problems.front()),
                  "Nothing was changed. Save the file as plain text first.");
  }
  const std::string old = file.value(key->name).value_or("");
  file.set(key->name, value);
  replaceFile(before.path, file.text());
  if (json) {
    console::print(dump({{"file", before.path},
                         {"key", key->name},
                         {"old", old.empty() ? Json() : Json(utf8FromAnsi(old))},
                         {"value", value},
                         {"takes_effect", key->takesEffect}}));
  } else {
    console::print(wrap(fmt::format("{} = {} (was {}), from {} on.", key->name, value,
                                    old.empty() ? fmt::format("the default, {}", key->defaultValue)
                                                : printable(utf8FromAnsi(old)),
                                    key->takesEffect),
                        kWidth, 2));
  }
  return ExitCode::Done;
}

} // namespace ctl
