// quillmonctl status

#include "quillmonctl/Commands.h"
#include "quillmonctl/Console.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/Wmi.h"

namespace ctl {

ExitCode showStatus(bool json, unsigned seconds, const std::string& expected) {
  const ComLibrary com;
  const Survey survey = surveySystem(seconds, readBaseline(expected));
  console::print(json ? dump(toJson(survey)) : toText(survey));
  return isHealthy(judge(survey)) ? ExitCode::Done : ExitCode::FoundWrong;
}

} // namespace ctl
