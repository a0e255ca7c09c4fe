#include "quillmonctl/Baseline.h"

#include "quillmonctl/Failure.h"
#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>

namespace ctl {
namespace {

std::string textOf(const Json& object, const char* member) {
  const auto found = object.find(member);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

[[noreturn]] void fail(const std::string& file, const std::string& why, const std::string& advice) {
  throw Failure(fmt::format("reading the expected devices from {}: {}", file, why), advice,
                ExitCode::WrongCommandLine);
}

Json toJson(const std::vector<KnownDevice>& devices) {
  Json json = Json::array();
  for (const KnownDevice& device : devices) {
    json.push_back({{"device", device.id},
                    {"category", device.category},
                    {"maker", device.maker},
                    {"model", device.model},
                    {"serial", device.serial}});
  }
  return json;
}

bool contains(const std::vector<KnownDevice>& devices, const KnownDevice& wanted) {
  return std::any_of(devices.begin(), devices.end(),
                     [&](const KnownDevice& device) { return device.isSameAs(wanted); });
}

/// Those of `devices` that `others` lacks, each once; one without an id cannot be told apart.
std::vector<KnownDevice> without(const std::vector<KnownDevice>& devices,
                                 const std::vector<KnownDevice>& others) {
  std::vector<KnownDevice> result;
  for (const KnownDevice& device : devices) {
    if (!device.id.empty() && !contains(others, device) && !contains(result, device)) {
      result.push_back(device);
    }
  }
  return result;
}

} // namespace

KnownDevice KnownDevice::of(const Json& instance) {
  return {textOf(instance, "DeviceID"), textOf(instance, "DeviceCategory"),
          textOf(instance, "ManufacturerName"), textOf(instance, "ModelName"),
          textOf(instance, "SerialNumber")};
}

Baseline Baseline::parse(std::string_view text, const std::string& file) {
  const std::string advice = fmt::format("Write it anew: quillmonctl expect --from-now {}", file);
  const Json json = Json::parse(text, nullptr, false);
  const bool hasDevices =
      json.is_object() && json.contains("devices") && json["devices"].is_array();
  if (!hasDevices) {
    fail(file, "it is not a file of \"quillmonctl expect\"", advice);
  }
  Baseline baseline;
  baseline.computer = textOf(json, "computer");
  for (const Json& entry : json["devices"]) {
    KnownDevice device = {textOf(entry, "device"), textOf(entry, "category"),
                          textOf(entry, "maker"), textOf(entry, "model"), textOf(entry, "serial")};
    if (device.id.empty()) {
      fail(file, fmt::format("its device {} has no name", baseline.devices.size() + 1), advice);
    }
    baseline.devices.push_back(std::move(device));
  }
  if (baseline.devices.empty()) {
    fail(file, "it names no device", advice);
  }
  return baseline;
}

std::string Baseline::toText() const {
  return dump({{"computer", computer}, {"devices", toJson(devices)}});
}

void Baseline::requireComputer(const std::string& name, const std::string& file) const {
  if (!computer.empty() && !equalsIgnoreCase(computer, name)) {
    fail(file, fmt::format("they are those of {}, and this is {}", printable(computer), name),
         fmt::format("Write this till's own: quillmonctl expect --from-now {}. A file without "
                     "\"computer\" holds for any till.",
                     file));
  }
}

Comparison compare(const Baseline& baseline, const std::vector<KnownDevice>& present) {
  Comparison result;
  result.missing = without(baseline.devices, present);
  result.added = without(present, baseline.devices);
  result.expected = without(baseline.devices, {}).size();
  return result;
}

std::string namesOf(const std::vector<KnownDevice>& devices) {
  std::vector<std::string> names;
  std::transform(devices.begin(), devices.end(), std::back_inserter(names),
                 [](const KnownDevice& device) {
                   return printable(fmt::format("{} ({})", device.id, device.category));
                 });
  return fmt::format("{}", fmt::join(names, ", "));
}

Json toJson(const Comparison& comparison) {
  return {{"expected", comparison.expected},
          {"missing", toJson(comparison.missing)},
          {"new", toJson(comparison.added)}};
}

} // namespace ctl
