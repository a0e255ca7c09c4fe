// Any bytes as the trace log's configuration file.

#include "Fuzzing.h"
#include "trace/TraceConfig.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

using fuzzing::require;
using trace::TraceConfig;
using trace::TraceSetting;

namespace {

using Settings = std::vector<TraceSetting>;

/// One line by the file's rules, put as plainly as they can be.
void readPlainly(std::string line, Settings& settings) {
  const auto trimFront = [](std::string& text) {
    while (!text.empty() && (text[0] == ' ' || text[0] == '\t')) {
      text.erase(0, 1);
    }
  };
  const auto trimBack = [](std::string& text, const char* letters) {
    while (!text.empty() && std::string_view(letters).find(text.back()) != std::string_view::npos) {
      text.pop_back();
    }
  };
  trimFront(line);
  const std::size_t end = line.find_first_of("=:");
  if (line.empty() || line[0] == '!' || line[0] == '#' || line[0] == '=' ||
      end == std::string::npos) {
    return;
  }
  std::string key = line.substr(0, end);
  std::string value = line.substr(end + 1);
  trimBack(key, " \t");
  trimBack(value, " \t\n");
  trimFront(value);
  if (value.size() > 1 && (value[0] == '"' || value[0] == '\'') && value[0] == value.back()) {
    value = value.substr(1, value.size() - 2);
  }
  if (value.empty()) {
    return;
  }
  const long number = std::strtol(value.c_str(), nullptr, 10);
  if (key == "FileSize") {
    settings.push_back(
        {TraceSetting::Key::FileSize, static_cast<int>(std::clamp(number, 0L, 10'000'000L))});
  } else if (key == "BackupCount") {
    settings.push_back(
        {TraceSetting::Key::BackupCount, static_cast<int>(std::clamp(number, 0L, 5L))});
  }
}

/// The file's lines as the C library's fgets hands them out with a buffer of 1024 bytes, each up
/// to its first NUL.
Settings settingsOf(std::string_view file) {
  Settings settings;
  while (!file.empty()) {
    const std::size_t end = std::min(file.find('\n'), file.size() - 1) + 1;
    const std::string_view line = file.substr(0, std::min<std::size_t>(end, 1023));
    readPlainly(std::string(line.substr(0, line.find('\0'))), settings);
    file.remove_prefix(line.size());
  }
  return settings;
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string bytes(fuzzing::textOf(data, size));
  Settings settings;
  if (!bytes.empty()) {
    const std::unique_ptr<std::FILE, FileCloser> file(fmemopen(bytes.data(), bytes.size(), "r"));
    require(file != nullptr, "the file is there");
    TraceConfig::readFile(file.get(),
                          [&](const TraceSetting& setting) { settings.push_back(setting); });
  }
  for (const TraceSetting& setting : settings) {
    const int largest = setting.key == TraceSetting::Key::FileSize ? 10'000'000 : 5;
    require(0 <= setting.value && setting.value <= largest, "a setting is within its limits");
  }
  require(settings == settingsOf(bytes), "the settings are those of the file");
  TraceConfig::readLine(bytes); // one line that holds anything, line ends and NULs too
  return 0;
}
