#include "quillmonctl/Metrics.h"

#include "quillmonctl/DevicePath.h"
#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofClasses.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <set>

namespace ctl {
namespace {

constexpr std::string_view kEveryDevice = "UPOS_Device";
constexpr std::string_view kCount = "Count";
constexpr std::string_view kHours = "Hours";
constexpr std::uint64_t kSecondsPerHour = 3600;

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}

/// "ParityLRCErrorTrack1" becomes "parity_lrc_error_track1".
std::string snakeCase(std::string_view name) {
  std::string result;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool endsAcronym = i + 1 < name.size() && isUpper(name[i]) && !isUpper(name[i + 1]);
    if (i > 0 && isUpper(name[i]) && (!isUpper(name[i - 1]) || endsAcronym)) {
      result += '_';
    }
    result += lower(name[i]);
  }
  return result;
}

std::string escaped(std::string_view text, bool quotes) {
  std::string result;
  for (const char c : printable(text)) {
    if (c == '\\' || (quotes && c == '"')) {
      result += '\\';
    }
    result += c;
  }
  return result;
}

std::string label(const char* name, const std::string& value) {
  return fmt::format("{}=\"{}\"", name, escaped(value, true));
}

/// What tells a till's devices apart.
std::string labels(const KnownDevice& device) {
  return label("device", device.id) + "," + label("category", device.category);
}

/// One metric with its series.
class Family {
public:
  Family(std::string name, const char* type, std::string_view help)
      : name_(std::move(name)), type_(type), help_(help) {}

  /// `key`: the labels that make it another series; `more`: those that only tell something.
  void add(const std::string& key, std::uint64_t value, const std::string& more = {}) {
    if (seen_.insert(key).second) {
      const std::string all = more.empty() ? key : key + "," + more;
      lines_ += fmt::format("{}{} {}\n", name_, all.empty() ? "" : "{" + all + "}", value);
    }
  }

  std::string text() const {
    return lines_.empty() ? ""
                          : fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{3}", name_,
                                        escaped(help_, false), type_, lines_);
  }

private:
  std::string name_;
  const char* type_;
  std::string help_;
  std::set<std::string> seen_;
  std::string lines_;
};

Family infoFamily(const std::vector<Json>& devices) {
  Family family("quillmon_device_info", "gauge", "A device of the till, as WMI lists it.");
  for (const Json& instance : devices) {
    const KnownDevice device = KnownDevice::of(instance);
    const auto firmware = instance.find("FirmwareRevision");
    family.add(labels(device), 1,
               label("maker", device.maker) + "," + label("model", device.model) + "," +
                   label("serial", device.serial) + "," +
                   label("firmware", firmware != instance.end() && firmware->is_string()
                                         ? firmware->get<std::string>()
                                         : ""));
  }
  return family;
}

Family counterFamily(const MofCounter& counter, const std::vector<Json>& instances) {
  const bool isHours = std::string_view(counter.property).starts_with(kHours);
  Family family(metricName(counter.className, counter.property), "counter", counter.description);
  for (const Json& instance : instances) {
    const auto value = instance.find(counter.property);
    if (value != instance.end() && value->is_number_unsigned()) {
      family.add(labels(KnownDevice::of(instance)),
                 value->get<std::uint64_t>() * (isHours ? kSecondsPerHour : 1));
    }
  }
  return family;
}

std::string expectationText(const TillReading& reading, const Baseline& baseline) {
  std::vector<KnownDevice> present;
  std::transform(reading.devices.begin(), reading.devices.end(), std::back_inserter(present),
                 KnownDevice::of);
  const Comparison comparison = compare(baseline, present);
  Family expected("quillmon_device_expected", "gauge",
                  "1 if the till should have the device, 0 if the device is new.");
  Family there("quillmon_device_present", "gauge", "1 if the device is there, 0 if it is missing.");
  for (const KnownDevice& device : baseline.devices) {
    expected.add(labels(device), 1);
  }
  for (const KnownDevice& device : comparison.added) {
    expected.add(labels(device), 0);
  }
  if (reading.isListed) {
    for (const KnownDevice& device : comparison.missing) {
      there.add(labels(device), 0);
    }
    for (const KnownDevice& device : present) {
      there.add(labels(device), 1);
    }
  }
  return expected.text() + there.text();
}

} // namespace

std::vector<std::string> counterClasses(const std::vector<Json>& devices) {
  std::set<std::string_view> belongs;
  for (const Json& instance : devices) {
    if (const char* const name = categoryClass(KnownDevice::of(instance).category)) {
      belongs.insert(name);
    }
  }
  std::vector<std::string> result;
  for (const MofCounter& counter : kMofCounters) {
    if (counter.className != kEveryDevice && belongs.contains(counter.className) &&
        (result.empty() || result.back() != counter.className)) { // a class's stand together
      result.emplace_back(counter.className);
    }
  }
  return result;
}

std::string metricName(std::string_view className, std::string_view property) {
  className.remove_prefix(std::min(className.find('_') + 1, className.size()));
  if (property.ends_with(kCount)) {
    property.remove_suffix(kCount.size());
  }
  const bool isHours = property.starts_with(kHours);
  if (isHours) { // Prometheus' base unit of time is the second
    property.remove_prefix(kHours.size());
  }
  return fmt::format("quillmon_{}_{}{}_total", snakeCase(className), snakeCase(property),
                     isHours ? "_seconds" : "");
}

std::string metricsText(const TillReading& reading, const std::optional<Baseline>& baseline) {
  Family up("quillmon_up", "gauge", "1 if WMI and the service answered, else 0.");
  up.add("", reading.isUp ? 1 : 0);
  std::string text = up.text();
  if (reading.lastEvent) {
    Family event("quillmon_last_event_timestamp_seconds", "gauge",
                 "When the last device event came.");
    event.add("", static_cast<std::uint64_t>(*reading.lastEvent));
    text += event.text();
  }
  text += infoFamily(reading.devices).text();
  if (baseline) {
    text += expectationText(reading, *baseline);
  }
  for (const MofCounter& counter : kMofCounters) {
    if (counter.className == kEveryDevice) {
      text += counterFamily(counter, reading.devices).text();
    } else if (const auto found = reading.categories.find(counter.className);
               found != reading.categories.end()) {
      text += counterFamily(counter, found->second).text();
    }
  }
  return text + "# EOF\n";
}

} // namespace ctl
