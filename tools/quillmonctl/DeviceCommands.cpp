// quillmonctl devices, get, watch

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/DevicePath.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <optional>

namespace ctl {
namespace {

constexpr unsigned kListTimeout = 30; // seconds for one device

/// What a table shows of a device; the rest is for "get" and --json.
constexpr std::array kColumns = {"DeviceID", "DeviceCategory", "ManufacturerName", "ModelName",
                                 "SerialNumber"};
const std::vector<std::string> kHeading = {"DEVICE", "CATEGORY", "MAKER", "MODEL", "SERIAL"};

std::string text(const Json& value) {
  return value.is_null() ? "-" : value.is_string() ? value.get<std::string>() : value.dump();
}

std::string textOf(const Json& object, const char* property) {
  return object.contains(property) ? text(object[property]) : "-";
}

/// The calls' own failures, with the exit code for what there is not.
template <class Call>
void mapNotFound(Call&& call) {
  try {
    call();
  } catch (Failure& failure) {
    if (failure.error &&
        (failure.error->number == 0x80041002 || failure.error->number == 0x80041010)) {
      failure.exitCode = ExitCode::NotFound;
    }
    throw;
  }
}

/// The service answers a path that it cannot serve and one that names no device alike. The list
/// of the path's class tells them apart.
Json fetch(Wmi& wmi, const std::string& path) {
  try {
    return wmi.object(path);
  } catch (Failure& failure) {
    if (!failure.error || failure.error->number != 0x80041001) {
      throw;
    }
    bool isThere = false;
    const std::string cls = classOf(path);
    const Wmi::End end = wmi.instances(cls, kListTimeout, [&](const Json& device) {
      isThere = device.value("__PATH", "").ends_with(path);
      return !isThere;
    });
    if (!isThere && end == Wmi::End::Complete) {
      failure.exitCode = ExitCode::NotFound;
      failure.advice =
          fmt::format("There is no such device. What there is: quillmonctl devices {}", cls);
    }
    throw;
  }
}

/// The device as its category's class has it, with that class's own properties.
Json inItsCategory(Wmi& wmi, Json device) {
  const std::string id = textOf(device, "DeviceID");
  const char* const cls = categoryClass(textOf(device, "DeviceCategory"));
  if (cls != nullptr) {
    try {
      return wmi.object(objectPath(fmt::format("{}/{}", cls, id)));
    } catch (const Failure&) { // a cache may hold it under another class's name
    }
  }
  return device;
}

SYSTEMTIME localTime() {
  SYSTEMTIME now = {};
  GetLocalTime(&now);
  return now;
}

std::string eventText(const std::string& type) {
  return type == "addInstance"      ? "attached"
         : type == "delInstance"    ? "detached"
         : type == "modifyInstance" ? "changed"
                                    : type;
}

std::string eventJson(const Json& event) {
  const SYSTEMTIME now = localTime();
  return dumpLine(
      {{"time", fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", now.wYear, now.wMonth,
                            now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds)},
       {"type", textOf(event, "eventtype")},
       {"class", event.value("classname", Json())},
       {"device", event.value("deviceid", Json())},
       {"code", event.value("codename", Json())}});
}

std::string eventLine(const Json& event) {
  const SYSTEMTIME now = localTime();
  const std::string code = textOf(event, "codename");
  return wrap(fmt::format("{:02}:{:02}:{:02}  {:<8}  {:<16}  {}{}", now.wHour, now.wMinute,
                          now.wSecond, printable(eventText(textOf(event, "eventtype"))),
                          printable(textOf(event, "classname")),
                          printable(textOf(event, "deviceid")),
                          code.empty() ? "" : fmt::format("  code {}", printable(code))),
              console::width(), 20);
}

} // namespace

ExitCode listDevices(bool json, const std::string& name, unsigned seconds) {
  const ComLibrary com;
  const std::string cls = className(name);
  std::vector<Json> devices;
  mapNotFound([&] { devices = Wmi().list(cls, seconds); });
  if (json) {
    console::print(dump(devices));
    return ExitCode::Done;
  }
  std::vector<std::vector<std::string>> rows;
  for (const Json& device : devices) {
    std::vector<std::string>& row = rows.emplace_back();
    for (const char* const column : kColumns) {
      row.push_back(textOf(device, column));
    }
  }
  console::print(rows.empty() ? fmt::format("No device of class {}.\n", cls)
                              : table(kHeading, rows, console::width()));
  return ExitCode::Done;
}

ExitCode getDevice(bool json, const std::string& name) {
  const ComLibrary com;
  mapNotFound([&] {
    Wmi wmi;
    Json object = fetch(wmi, objectPath(name));
    if (isDeviceId(name)) {
      object = inItsCategory(wmi, std::move(object));
    }
    if (json) {
      console::print(dump(object));
      return;
    }
    std::vector<std::pair<std::string, std::string>> lines;
    for (const auto& [property, value] : object.items()) {
      if (!property.starts_with("__")) {
        lines.emplace_back(property, text(value));
      }
    }
    console::print(pairs(lines, console::width()));
  });
  return ExitCode::Done;
}

ExitCode watchDevices(bool json, unsigned seconds, unsigned count) {
  const ComLibrary com;
  Wmi wmi;
  Wmi::Events events = wmi.subscribe(fmt::format("SELECT * FROM {}", kEventClass));
  const Wmi::Clock::time_point end = Wmi::Clock::now() + std::chrono::seconds(seconds);
  console::printError("Watching device events; Ctrl-C ends.\n");
  unsigned seen = 0;
  for (;;) {
    const std::optional<Json> event = events.next(seconds == 0 ? std::nullopt : std::optional(end));
    if (event) {
      console::print(json ? eventJson(*event) : eventLine(*event));
      if (++seen == count) {
        return ExitCode::Done;
      }
    } else if (seconds != 0 && Wmi::Clock::now() >= end) {
      return count != 0 ? ExitCode::TimedOut : ExitCode::Done;
    }
  }
}

} // namespace ctl
