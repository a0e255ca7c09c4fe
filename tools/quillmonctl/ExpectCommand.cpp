// quillmonctl expect, and the reading of its file

#include "quillmonctl/Baseline.h"
#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Text.h"
#include "quillmonctl/Wmi.h"

#include <fmt/format.h>

namespace ctl {
namespace {

std::string computerName() {
  std::wstring name(MAX_COMPUTERNAME_LENGTH + 1, L'\0');
  auto length = static_cast<DWORD>(name.size());
  if (!GetComputerNameW(name.data(), &length)) {
    failWin32("asking for the computer's name (GetComputerName)");
  }
  name.resize(length);
  return utf8(name);
}

} // namespace

std::optional<Baseline> readBaseline(const std::string& file) {
  if (file.empty()) {
    return std::nullopt;
  }
  const std::string path = absolutePath(file);
  const std::optional<std::string> text = readFile(path);
  if (!text) {
    throw Failure(fmt::format("reading the expected devices from {}: there is no such file", path),
                  fmt::format("Write it: quillmonctl expect --from-now {}", path),
                  ExitCode::WrongCommandLine);
  }
  Baseline baseline = Baseline::parse(*text, path);
  baseline.requireComputer(computerName(), path);
  return baseline;
}

ExitCode expectDevices(bool json, unsigned seconds, const std::string& file) {
  const ComLibrary com;
  const std::string path = absolutePath(file);
  Baseline baseline = {computerName(), {}};
  for (const Json& instance : Wmi().list("UPOS_LogicalDevice", seconds)) {
    KnownDevice device = KnownDevice::of(instance);
    if (!device.id.empty()) {
      baseline.devices.push_back(std::move(device));
    }
  }
  if (baseline.devices.empty()) {
    throw Failure("looking for devices to expect: none is listed",
                  "Check that the device server has devices, and that this prompt may read them "
                  "(quillmonctl doctor).");
  }
  replaceFile(path, baseline.toText());
  const std::size_t count = baseline.devices.size();
  console::print(json ? dump({{"file", path}, {"devices", count}})
                      : wrap(fmt::format("{} devices are expected from now on by whoever is given "
                                         "--expected {}",
                                         count, path),
                             kWidth, 2));
  return ExitCode::Done;
}

} // namespace ctl
