#include "quillmonctl/Failure.h"

#include "quillmonctl/Json.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace ctl {
namespace {

struct Advice {
  SystemError::Kind kind;
  std::uint32_t number;
  const char* text;
};

constexpr auto kWin32 = SystemError::Kind::Win32;
constexpr auto kHResult = SystemError::Kind::HResult;

constexpr const char* kElevate =
    "Run the command again from a prompt that was opened with \"Run as administrator\".";

constexpr auto kAdvice = std::to_array<Advice>({
    {kWin32, 2, "Check that the file is there and that its name is right."},
    {kWin32, 3, "Check that the folder is there and that its name is right."},
    {kWin32, 5, kElevate},
    {kWin32, 32, "Close the program that has the file open, and try again."},
    {kWin32, 112, "Make room on the disk."},
    {kWin32, 1053,
     "The service was started and did not answer. Look into its trace (quillmonctl trace on) and "
     "into the system's event log."},
    {kWin32, 1056, "The service runs already."},
    {kWin32, 1058, "Enable the service: sc config QuillmonServ start= auto"},
    {kWin32, 1060, "Install it first: quillmonctl install"},
    {kWin32, 1068, "Start the service that it depends on first: net start winmgmt"},
    {kWin32, 1072,
     "The service is about to be removed: close the Services console and every program that shows "
     "services, then try again."},
    {kWin32, 1073, "It is installed already: quillmonctl repair renews its WMI classes."},
    {kHResult, 0x80040154,
     "A COM class that belongs to Windows is not registered: WMI is not usable on this machine."},
    {kHResult, 0x80041001,
     "The service could not ask its device server. Check that the device server runs and that both "
     "use the same port (quillmonctl status)."},
    {kHResult, 0x80041002, "Check the name: quillmonctl devices lists what there is."},
    {kHResult, 0x80041003, kElevate},
    {kHResult, 0x80041006, "The machine is out of memory."},
    {kHResult, 0x80041008, "Check the path or the name that was given."},
    {kHResult, 0x80041010,
     "The class is not known to WMI. Check its name; if all classes of Quillmon are missing "
     "(quillmonctl status), run quillmonctl repair."},
    {kHResult, 0x80041013,
     "The service is not registered with WMI. Check that it runs (quillmonctl status); if it does, "
     "restart it."},
    {kHResult, 0x8004103A, "Write the path as CLASS.DeviceID=\"ID\", or as CLASS/ID."},
    {kHResult, 0x800706BA, "Start Windows' WMI service: net start winmgmt"},
    {kHResult, 0x80070422, "Enable Windows' WMI service: sc config winmgmt start= auto"},
    {kHResult, 0x80070005, kElevate},
});

struct WmiMessage {
  std::uint32_t result;
  const char* text;
};

constexpr auto kWmiMessages = std::to_array<WmiMessage>({
    {0x80041001, "Generic failure"},
    {0x80041002, "Not found"},
    {0x80041003, "Access denied"},
    {0x80041006, "Out of memory"},
    {0x80041008, "Invalid parameter"},
    {0x80041009, "Not available"},
    {0x80041010, "Invalid class"},
    {0x80041013, "Provider load failure"},
    {0x80041017, "Invalid query"},
    {0x80041032, "Call cancelled"},
    {0x8004103A, "Invalid object path"},
});

bool isAccessDenied(const SystemError& error) {
  return (error.kind == kWin32 && error.number == 5) ||
         (error.kind == kHResult && (error.number == 0x80041003 || error.number == 0x80070005));
}

std::string codeText(const SystemError& error) {
  return error.kind == kWin32 ? fmt::format("{}", error.number)
                              : fmt::format("0x{:08X}", error.number);
}

} // namespace

Failure::Failure(std::string failedStep, SystemError why, std::string whatToDo)
    : step(std::move(failedStep)), error(std::move(why)), advice(std::move(whatToDo)),
      exitCode(isAccessDenied(*error) ? ExitCode::AccessDenied : ExitCode::Failed) {}

SystemError errorOf(const Failure& failure) {
  return failure.error.value_or(SystemError{SystemError::Kind::Win32, 0, failure.step});
}

std::string describe(const SystemError& error) {
  if (error.number == 0) { // what was found wrong without an error of the system's
    return error.text;
  }
  return fmt::format("error {}{}{}", codeText(error), error.text.empty() ? "" : ": ", error.text);
}

std::string wmiMessage(std::uint32_t result) {
  const auto found =
      std::find_if(kWmiMessages.begin(), kWmiMessages.end(),
                   [&](const WmiMessage& message) { return message.result == result; });
  return found != kWmiMessages.end() ? found->text : "";
}

std::string adviceFor(const SystemError& error) {
  const auto found = std::find_if(kAdvice.begin(), kAdvice.end(), [&](const Advice& advice) {
    return advice.kind == error.kind && advice.number == error.number;
  });
  return found != kAdvice.end() ? found->text : "";
}

std::string toText(const Failure& failure, const char* program) {
  std::string text = wrap(fmt::format("{}: failed: {}", program, failure.step), kWidth, 2);
  if (failure.error) {
    text += wrap(fmt::format("  {}", describe(*failure.error)), kWidth, 4);
  }
  for (const std::string& undone : failure.undone) {
    text += wrap(fmt::format("  undone: {}", undone), kWidth, 4);
  }
  if (!failure.advice.empty()) {
    text += wrap(fmt::format("  what to do: {}", failure.advice), kWidth, 4);
  }
  return text;
}

std::string toJson(const Failure& failure) {
  Json json = {{"step", failure.step}, {"code", nullptr}, {"code_text", ""}, {"text", ""}};
  if (failure.error) {
    json["code"] = failure.error->number;
    json["code_text"] = codeText(*failure.error);
    json["text"] = failure.error->text;
  }
  json["advice"] = failure.advice;
  json["undone"] = failure.undone;
  return dump({{"error", std::move(json)}});
}

} // namespace ctl
