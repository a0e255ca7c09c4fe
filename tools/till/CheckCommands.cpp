#include "till/CheckCommands.h"

#include "quillmonctl/Failure.h"
#include "quillmonctl/Text.h"
#include "till/DeviceClasses.h"
#include "till/DocumentCheck.h"
#include "till/DocumentReportText.h"
#include "till/ServerCheck.h"

#ifdef _WIN32
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#endif

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace till {
namespace {

using ctl::ExitCode;
using ctl::Failure;
using ctl::SystemError;

constexpr const char* kProgram = "quillmon-till";
constexpr std::string_view kCheckDocument = "check-document";
constexpr std::string_view kCheckServer = "check-server";
constexpr std::uintmax_t kLargestDocument = std::uintmax_t{1} << 30U;

constexpr const char* kDocumentFooter = R"(
The service's own reader reads the document, in both strategies. The report says what is kept,
discarded, published and left out, and why. Texts are converted by the code page of the machine
that the command runs on. A file may begin with the start mark (ESC) of a message.

Exit codes: 0 all of it arrives as it stands; 1 the document could not be checked; 2 wrong command
line; 3 the report is whole and names a problem.
)";

constexpr const char* kServerFooter = R"(
In the adapter strategy it asks for lists, single devices, unknown ids and types, in pieces and
several at once, and takes event datagrams. In the proxy strategy the device server connects to
it; it takes the devices, asks for an update, ends the connection and expects another one. The
service itself must not run, or must use other ports.

Exit codes: 0 no check failed (warnings name what does not arrive as it stands); 1 a port of this
machine could not be had; 2 wrong command line; 3 a check failed or was skipped after time-outs.
)";

void print(std::string_view text) {
#ifdef _WIN32
  const UINT before = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
#endif
  std::cout << text << std::flush;
#ifdef _WIN32
  SetConsoleOutputCP(before);
#endif
}

[[noreturn]] void failReading(const std::string& name, int number) {
  SystemError error{SystemError::Kind::Win32, static_cast<std::uint32_t>(number),
                    std::generic_category().message(number)};
  std::string advice = ctl::adviceFor(error);
  throw Failure(fmt::format("reading {}", name), std::move(error), std::move(advice));
}

std::string readAll(std::istream& in, const std::string& name) {
  std::string text;
  for (std::string piece(65536, '\0'); in;) {
    in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    text.append(piece, 0, static_cast<std::size_t>(in.gcount()));
    if (text.size() > kLargestDocument) {
      throw Failure(fmt::format("reading {}: larger than 1 GiB", name),
                    "Check a part of it: each instance is read like the others.");
    }
  }
  if (in.bad()) {
    failReading(name, errno);
  }
  return text;
}

std::string readDocument(const std::string& name) {
  if (name == "-") {
#ifdef _WIN32
    _setmode(_fileno(stdin), _O_BINARY);
#endif
    return readAll(std::cin, "standard input");
  }
  std::error_code problem;
  if (std::filesystem::is_directory(name, problem)) {
    failReading(name, EISDIR);
  }
  std::ifstream file(name, std::ios::binary);
  if (!file) {
    failReading(name, errno);
  }
  return readAll(file, name);
}

ExitCode checkDocumentFile(const std::string& name, bool json) {
  const DocumentReport report = checkDocument(readDocument(name));
  print(json ? ctl::dump(toJson(report)) : toText(report, name == "-" ? "standard input" : name));
  return report.hasProblems ? ExitCode::FoundWrong : ExitCode::Done;
}

/// Runs `command`; a failure is said in the form that was asked for.
template <class Command>
int guarded(bool json, const std::string& step, const Command& command) {
  const auto fail = [json](const Failure& failure) {
    if (json) {
      print(ctl::toJson(failure));
    } else {
      std::cerr << ctl::toText(failure, kProgram) << std::flush;
    }
    return static_cast<int>(failure.exitCode);
  };
  try {
    return static_cast<int>(command());
  } catch (const Failure& failure) {
    return fail(failure);
  } catch (const std::bad_alloc&) {
    return fail({fmt::format("{}: there is not enough memory for it", step),
                 "Check a smaller part of it, or on a machine with more memory."});
  } catch (const std::exception& problem) {
    return fail({fmt::format("{}: {}", step, problem.what()), ""});
  }
}

// -- check-server

const char* word(CheckedItem::Result result) {
  switch (result) {
  case CheckedItem::Result::Good:
    return "ok";
  case CheckedItem::Result::Warning:
    return "warning";
  case CheckedItem::Result::Bad:
    return "FAILED";
  case CheckedItem::Result::Skipped:
    break;
  }
  return "skipped";
}

std::string toText(const std::vector<CheckedItem>& items) {
  std::vector<std::vector<std::string>> rows;
  std::string findings;
  for (const CheckedItem& each : items) {
    rows.push_back(
        {each.name, word(each.result), each.time ? fmt::format("{} ms", each.time->count()) : "-"});
    for (const std::string& finding : each.findings) {
      findings +=
          ctl::wrap(ctl::printable(fmt::format("{}: {}", each.name, finding)), ctl::kWidth, 2);
    }
  }
  return ctl::table({"CHECK", "RESULT", "TIME"}, rows) + (findings.empty() ? "" : "\n") + findings;
}

ctl::Json toJson(const std::vector<CheckedItem>& items, bool isProxy) {
  ctl::Json checks = ctl::Json::array();
  for (const CheckedItem& each : items) {
    ctl::Json check = {{"name", each.name},
                       {"result", lowered(word(each.result))},
                       {"milliseconds", nullptr},
                       {"findings", each.findings}};
    if (each.time) {
      check["milliseconds"] = each.time->count();
    }
    checks.push_back(std::move(check));
  }
  return {{"strategy", isProxy ? "proxy" : "adapter"}, {"checks", std::move(checks)}};
}

ExitCode checkDeviceServer(const ServerCheckOptions& options, bool json) {
  std::vector<CheckedItem> items;
  try {
    items = checkServer(options, [](std::string_view line) {
      std::cerr << fmt::format("{}: {}\n", kProgram, line) << std::flush;
    });
  } catch (const std::system_error& problem) {
    // what() is the step, and then the system's words.
    const std::string message = problem.code().message();
    const std::string text = problem.what();
    throw Failure(text.substr(0, text.rfind(": " + message)),
                  SystemError{SystemError::Kind::Win32,
                              static_cast<std::uint32_t>(problem.code().value()), message},
                  "If the service or another program uses the port, stop it, or choose other ports "
                  "for the device server and for this command.");
  }
  print(json ? ctl::dump(toJson(items, options.isProxy)) : toText(items));
  const bool failed = std::ranges::any_of(items, [](const CheckedItem& each) {
    return each.result == CheckedItem::Result::Bad || each.result == CheckedItem::Result::Skipped;
  });
  return failed ? ExitCode::FoundWrong : ExitCode::Done;
}

/// Takes "HOST:PORT", or a port alone. What is wrong with it; empty: nothing.
std::string readPlace(const std::string& place, ServerCheckOptions& options) {
  const std::size_t colon = place.rfind(':');
  const char* const port = place.data() + (colon == std::string::npos ? 0 : colon + 1);
  const char* const end = place.data() + place.size();
  const auto [stop, problem] = std::from_chars(port, end, options.requestPort);
  if (problem != std::errc() || stop != end || options.requestPort == 0 || colon == 0) {
    return fmt::format("'{}' is no HOST:PORT", place);
  }
  if (colon != std::string::npos) {
    options.host = place.substr(0, colon);
  }
  return {};
}

// -- the command line

/// Reads the command line. Returns the exit code when the program is to end now.
std::optional<int> parse(CLI::App& app, int argc, const char* const* argv) {
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) {
      return app.exit(problem);
    }
    std::cerr << ctl::wrap(fmt::format("{}: {} (--help tells more)", kProgram, problem.what()),
                           ctl::kWidth, 2)
              << std::flush;
    return static_cast<int>(ExitCode::WrongCommandLine);
  }
}

/// The program's command with its option --json, which may stand anywhere.
CLI::App* addCommand(CLI::App& app, std::string_view name, const char* what, bool& json) {
  app.add_flag("--json", json, "For scripts: JSON instead of text");
  app.fallthrough();
  CLI::App* const command = app.add_subcommand(std::string(name), what);
  command->option_defaults()->always_capture_default();
  return command;
}

int runCheckDocument(int argc, const char* const* argv) {
  bool json = false;
  std::string file;
  CLI::App app("", kProgram);
  CLI::App* const command = addCommand(
      app, kCheckDocument,
      "Reads an answer or an event as the Quillmon service does and says what becomes of it.",
      json);
  command->add_option("FILE", file, "The document; - for standard input")
      ->required()
      ->always_capture_default(false);
  command->footer(kDocumentFooter);
  if (const std::optional<int> ended = parse(app, argc, argv)) {
    return *ended;
  }
  return guarded(json, fmt::format("checking {}", file),
                 [&] { return checkDocumentFile(file, json); });
}

int runCheckServer(int argc, const char* const* argv) {
  bool json = false;
  ServerCheckOptions options;
  std::string place = fmt::format("{}:{}", options.host, options.requestPort);
  std::string strategy = "adapter";
  auto timeout = static_cast<unsigned>(options.timeout.count());
  std::size_t events = 1;
  CLI::App app("", kProgram);
  CLI::App* const command = addCommand(
      app, kCheckServer,
      "Plays the Quillmon service towards a device server and judges what it does.", json);
  command->add_option("HOST:PORT", place, "Adapter strategy: where the device server answers")
      ->check([&options](const std::string& text) { return readPlace(text, options); });
  command->add_option("--strategy", strategy, "adapter or proxy")
      ->check(CLI::IsMember({"adapter", "proxy"}).description(""));
  command
      ->add_option("--event-port", options.eventPort,
                   "Port on this machine for the device server's events; in the proxy strategy "
                   "it connects to it")
      ->check(CLI::Range(1, 65535).description(""));
  command->add_option("--timeout", timeout, "Milliseconds to wait for each answer and event")
      ->check(CLI::Range(1, 3'600'000).description(""));
  command->add_option("--devices", options.devices,
                      "Proxy strategy: how many devices are attached; 0: as many as come before a "
                      "second's silence");
  CLI::Option* const wantsEvents = command->add_option(
      "--events", events, "Wait for so many events; if the option is given, fewer are a failure");
  command->footer(kServerFooter);
  if (const std::optional<int> ended = parse(app, argc, argv)) {
    return *ended;
  }
  return guarded(json, "checking the device server", [&] {
    options.isProxy = strategy == "proxy";
    options.timeout = std::chrono::milliseconds(timeout);
    if (wantsEvents->count() != 0) {
      options.events = events;
    }
    return checkDeviceServer(options, json);
  });
}

} // namespace

std::optional<int> runCheckCommand(int argc, const char* const* argv) {
  const char* const* const end = argv + argc;
  const char* const* const word =
      std::find_if(argv + std::min(argc, 1), end, [](const char* each) { return *each != '-'; });
  if (word == end || (*word != kCheckDocument && *word != kCheckServer)) {
    return std::nullopt;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): before any thread; natively it is the local code page
  std::setlocale(LC_CTYPE, "");
  return *word == kCheckDocument ? runCheckDocument(argc, argv) : runCheckServer(argc, argv);
}

} // namespace till
