// quillmonctl status

#include "quillmonctl/Console.h"
#include "quillmonctl/Invocation.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/Wmi.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace ctl {

void addStatusCommand(CLI::App& app, Invocation& invocation) {
  const auto seconds = std::make_shared<unsigned>(10);
  CLI::App* const status =
      app.add_subcommand("status", "What is installed, running, configured and reachable");
  status->add_option("--timeout", *seconds, "Seconds to wait for the provider's answer")
      ->capture_default_str();
  status->callback([&invocation, seconds] {
    invocation.command = [&invocation, seconds] {
      const ComLibrary com;
      const Survey survey = surveySystem(*seconds);
      console::print(invocation.json ? dump(toJson(survey)) : toText(survey));
      return isHealthy(judge(survey)) ? ExitCode::Done : ExitCode::FoundWrong;
    };
  });
}

} // namespace ctl
