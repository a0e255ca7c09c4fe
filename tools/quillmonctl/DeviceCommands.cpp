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

std::string eventText(const std::string& type) {
  return type == "addInstance"      ? "attached"
         : type == "delInstance"    ? "detached"
         : type == "modifyInstance" ? "changed"
                                    : type;
}

} // namespace

ExitCode listDevices(bool json, const std::string& name, unsigned seconds) {
  const ComLibrary com;
  const std::string cls = className(name);
  Json all = Json::array();
  std::vector<std::vector<std::string>> rows;
  Wmi::End end = Wmi::End::Complete;
  mapNotFound([&] {
    end = Wmi().instances(cls, seconds, [&](const Json& device) {
      std::vector<std::string>& row = rows.emplace_back();
      for (const char* const column : kColumns) {
        row.push_back(textOf(device, column));
      }
      all.push_back(device);
      return true;
    });
  });
  if (end == Wmi::End::TimedOut) {
    throw Failure(fmt::format("listing {}: no answer within {} s", cls, seconds),
                  "The device server takes requests and does not answer: restart it, or wait "
                  "longer (--timeout).",
                  ExitCode::TimedOut);
  }
  if (json) {
    console::print(dump(all));
  } else if (rows.empty()) {
    console::print(fmt::format("No device of class {}.\n", cls));
  } else {
    console::print(table(kHeading, rows, console::width()));
  }
  return ExitCode::Done;
}

ExitCode getDevice(bool json, const std::string& name) {
  const ComLibrary com;
  mapNotFound([&] {
    Wmi wmi;
    const Json object = fetch(wmi, objectPath(name));
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
    console::print(pairs(lines, 0, console::width()));
  });
  return ExitCode::Done;
}

ExitCode watchDevices(bool json, unsigned seconds, unsigned count) {
  const ComLibrary com;
  Wmi wmi;
  unsigned seen = 0;
  const Wmi::End end = wmi.events(
      fmt::format("SELECT * FROM {}", kEventClass), seconds,
      [] { console::printError("Watching device events; Ctrl-C ends.\n"); },
      [&](const Json& event) {
        SYSTEMTIME now = {};
        GetLocalTime(&now);
        const std::string type = textOf(event, "eventtype");
        if (json) {
          console::print(
              dumpLine({{"time", fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", now.wYear,
                                             now.wMonth, now.wDay, now.wHour, now.wMinute,
                                             now.wSecond, now.wMilliseconds)},
                        {"type", type},
                        {"class", event.value("classname", Json())},
                        {"device", event.value("deviceid", Json())},
                        {"code", event.value("codename", Json())}}));
        } else {
          const std::string code = textOf(event, "codename");
          console::print(
              wrap(fmt::format("{:02}:{:02}:{:02}  {:<8}  {:<16}  {}{}", now.wHour, now.wMinute,
                               now.wSecond, printable(eventText(type)),
                               printable(textOf(event, "classname")),
                               printable(textOf(event, "deviceid")),
                               code.empty() ? "" : fmt::format("  code {}", printable(code))),
                   console::width(), 20));
        }
        return count == 0 || ++seen < count;
      });
  return end == Wmi::End::TimedOut && count != 0 ? ExitCode::TimedOut : ExitCode::Done;
}

} // namespace ctl
