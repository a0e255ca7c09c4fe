// quillmonctl metrics

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/Metrics.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"

#include <fmt/format.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <thread>

namespace ctl {
namespace {

/// Held while the file is replaced, so that Ctrl-C ends the program before or after.
std::mutex replacing;

BOOL WINAPI waitForReplacement(DWORD /*type*/) {
  replacing.lock(); // for good
  return FALSE;     // the system's own handler, which ends the process
}

/// A round of questions, and why it stopped early.
struct Round {
  TillReading reading;
  std::optional<Failure> failure;
};

/// A failure ends the round: the next question would only wait as long for nothing.
Round ask(std::optional<Wmi>& wmi, unsigned seconds) {
  Round round;
  TillReading& reading = round.reading;
  try {
    if (!wmi) {
      wmi.emplace();
    }
    reading.devices = wmi->list("UPOS_LogicalDevice", seconds);
    reading.isListed = true;
    for (const std::string& cls : counterClasses(reading.devices)) {
      reading.categories[cls] = wmi->list(cls, seconds);
    }
    reading.isUp = true;
  } catch (const Failure& failure) {
    round.failure = failure;
    wmi.reset(); // the connection may be what is broken
  }
  return round;
}

void replaceTextfile(const std::string& path, const std::string& text) {
  const std::lock_guard lock(replacing);
  replaceFile(path, text);
}

Json resultJson(const TillReading& reading, const std::string& path) {
  return {{"up", reading.isUp}, {"devices", reading.devices.size()}, {"file", path}};
}

/// Replaces the file again and again. Whatever fails is said, and tried again in the next round.
[[noreturn]] void watch(bool json, const MetricsOptions& options, const std::string& path,
                        const std::optional<Baseline>& baseline) {
  const auto attempt = [&](auto&& job) {
    try {
      job();
    } catch (const Failure& failure) {
      json ? console::print(dumpLine(Json::parse(toJson(failure))))
           : console::printError(toText(failure));
    }
  };
  SetConsoleCtrlHandler(waitForReplacement, TRUE);
  console::printError(wrap(
      fmt::format("Replacing {} every {} s; Ctrl-C ends.", path, options.watchEvery), kWidth, 2));
  std::optional<Wmi> wmi;
  std::optional<Wmi::Events> events;
  std::optional<std::int64_t> lastEvent;
  for (;;) {
    const Wmi::Clock::time_point next =
        Wmi::Clock::now() + std::chrono::seconds(options.watchEvery);
    Round round = ask(wmi, options.timeout);
    attempt([&] {
      if (round.failure) {
        throw Failure(*round.failure);
      }
      if (!events) {
        events = wmi->subscribe(fmt::format("SELECT * FROM {}", kEventClass));
      }
    });
    round.reading.lastEvent = lastEvent;
    attempt([&] {
      replaceTextfile(path, metricsText(round.reading, baseline));
      if (json) {
        console::print(dumpLine(resultJson(round.reading, path)));
      }
    });
    while (Wmi::Clock::now() < next) {
      if (!events) {
        std::this_thread::sleep_until(next);
        break;
      }
      attempt([&] {
        try {
          if (events->next(next)) {
            lastEvent = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
          }
        } catch (const Failure&) {
          events.reset(); // subscribes anew in the next round
          throw;
        }
      });
    }
  }
}

} // namespace

ExitCode exportMetrics(bool json, const MetricsOptions& options) {
  const ComLibrary com;
  const std::optional<Baseline> baseline = readBaseline(options.expected);
  const std::string path = options.textfile.empty() ? "" : absolutePath(options.textfile);
  if (options.watchEvery != 0) {
    watch(json, options, path, baseline);
  }
  std::optional<Wmi> wmi;
  const Round round = ask(wmi, options.timeout);
  const std::string text = metricsText(round.reading, baseline);
  if (!path.empty()) {
    replaceTextfile(path, text);
  } else if (!json) {
    console::print(text);
  }
  if (round.failure) { // the metrics say so, too
    throw Failure(*round.failure);
  }
  if (json) {
    Json result = resultJson(round.reading, path);
    if (path.empty()) {
      result["text"] = text;
    }
    console::print(dump(result));
  } else if (!path.empty()) {
    console::print(
        wrap(fmt::format("{} devices in {}", round.reading.devices.size(), path), kWidth, 2));
  }
  return ExitCode::Done;
}

} // namespace ctl
