// quillmonctl devices, get, watch

#include "quillmonctl/Console.h"
#include "quillmonctl/DevicePath.h"
#include "quillmonctl/Invocation.h"
#include "quillmonctl/Product.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <array>
#include <memory>

namespace ctl {
namespace {

constexpr unsigned kListPatience = 30; // seconds for one device

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
void orNotFound(Call&& call) {
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

ExitCode listDevices(const Invocation& invocation, const std::string& name, unsigned seconds) {
  const ComLibrary com;
  const std::string cls = className(name);
  Json all = Json::array();
  std::vector<std::vector<std::string>> rows;
  Wmi::End end = Wmi::End::Complete;
  orNotFound([&] {
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
  if (invocation.json) {
    console::print(dump(all));
  } else if (rows.empty()) {
    console::print(fmt::format("No device of class {}.\n", cls));
  } else {
    console::print(table(kHeading, rows, console::width()));
  }
  return ExitCode::Done;
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
    const Wmi::End end = wmi.instances(cls, kListPatience, [&](const Json& device) {
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

ExitCode getDevice(const Invocation& invocation, const std::string& name) {
  const ComLibrary com;
  orNotFound([&] {
    Wmi wmi;
    const Json object = fetch(wmi, objectPath(name));
    if (invocation.json) {
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

std::string eventText(const std::string& type) {
  return type == "addInstance"      ? "attached"
         : type == "delInstance"    ? "detached"
         : type == "modifyInstance" ? "changed"
                                    : type;
}

ExitCode watchDevices(const Invocation& invocation, unsigned seconds, unsigned count) {
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
        if (invocation.json) {
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

} // namespace

void addDeviceCommands(CLI::App& app, Invocation& invocation) {
  struct Options {
    std::string name;
    unsigned timeout = 60;
    unsigned seconds = 0;
    unsigned count = 0;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const devices = app.add_subcommand("devices", "List the till's devices");
  devices->add_option("CLASS", options->name, "Scanner or UPOS_Scanner; all devices without it");
  devices->add_option("--timeout", options->timeout, "Seconds to wait for the answer")
      ->capture_default_str();
  devices->callback([&invocation, options] {
    invocation.command = [&invocation, options] {
      return listDevices(invocation, options->name, options->timeout);
    };
  });

  CLI::App* const get = app.add_subcommand("get", "All properties of one device");
  get->add_option("PATH", options->name,
                  "SCANNER1, Scanner/SCANNER1, or a WMI object path: "
                  "UPOS_Scanner.DeviceID=\"SCANNER1\"")
      ->required();
  get->callback([&invocation, options] {
    invocation.command = [&invocation, options] { return getDevice(invocation, options->name); };
  });

  CLI::App* const watch = app.add_subcommand("watch", "Device events as they happen, one a line");
  watch->add_option("--seconds", options->seconds, "End after so long; 0: never")
      ->capture_default_str();
  watch
      ->add_option("--count", options->count,
                   "End after so many events; exit code 6 if fewer come in time")
      ->capture_default_str();
  watch->callback([&invocation, options] {
    invocation.command = [&invocation, options] {
      return watchDevices(invocation, options->seconds, options->count);
    };
  });
}

} // namespace ctl
