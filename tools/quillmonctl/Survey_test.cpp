#include "quillmonctl/Survey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

using namespace ctl;
using Level = Verdict::Level;

/// A machine on which all is well.
Survey healthy() {
  Survey survey;
  survey.toolVersion = "1.2.3";
  survey.service.state = "running";
  survey.service.processId = 77;
  survey.service.pathText = "C:/Quillmon/quillmon.exe";
  survey.service.path = BinaryPath::parse(survey.service.pathText);
  survey.service.programExists = true;
  survey.service.programVersion = "1.2.3";
  survey.service.start = "automatic";
  survey.service.restartsAfterFailure = true;
  survey.wmi.classes = 39;
  survey.wmi.answers = true;
  survey.wmi.listed.resize(13);
  survey.configuration.path = "C:\\POS\\JavaPOS\\Config\\quillmon.properties";
  survey.configuration.keys = {{"upos.requestSocket.Port", "42115", "42115", false, ""}};
  survey.sockets.requestPort = 42115;
  survey.sockets.eventPort = 42114;
  survey.sockets.eventPortOpen = true;
  survey.trace.log = "C:\\Quillmon\\Quillmon.log";
  return survey;
}

/// The worst verdict of a check.
Level verdictOf(const Survey& survey, const std::string& check) {
  Level worst = Level::Good;
  bool found = false;
  for (const Verdict& verdict : judge(survey)) {
    if (verdict.check == check) {
      found = true;
      worst = std::max(worst, verdict.level);
    }
  }
  EXPECT_TRUE(found) << check;
  return worst;
}

TEST(Survey, AHealthyMachineHasOnlyGoodVerdicts) {
  for (const Verdict& verdict : judge(healthy())) {
    EXPECT_EQ(verdict.level, Level::Good) << verdict.check;
    EXPECT_EQ(verdict.advice, "") << verdict.check;
  }
}

TEST(Survey, EachFaultIsFoundAndHasAdvice) {
  struct Row {
    const char* check;
    Level level;
    void (*spoil)(Survey& survey);
  };
  const Row rows[] = {
      {"service", Level::Bad,
       [](Survey& s) {
         s.service.error = SystemError{SystemError::Kind::Win32, 1060, ""};
       }},
      {"service", Level::Bad,
       [](Survey& s) {
         s.service.error = SystemError{SystemError::Kind::Win32, 5, ""};
       }},
      {"service", Level::Bad, [](Survey& s) { s.service.state = "stopped"; }},
      {"binary path", Level::Bad, [](Survey& s) { s.service.programExists = false; }},
      {"binary path", Level::Bad,
       [](Survey& s) { s.service.path = BinaryPath::parse("C:/a b/q.exe"); }},
      {"binary path", Level::Bad, [](Survey& s) { s.service.hijackCandidates = {"C:\\a.exe"}; }},
      {"version", Level::Warning, [](Survey& s) { s.service.programVersion = "1.2.4"; }},
      {"start", Level::Warning, [](Survey& s) { s.service.start = "manual"; }},
      {"start", Level::Warning, [](Survey& s) { s.service.start = "automatic (delayed)"; }},
      {"dependency", Level::Warning,
       [](Survey& s) {
         s.service.dependencies = {"RpcSs", "Winmgmt"};
       }},
      {"recovery", Level::Warning, [](Survey& s) { s.service.restartsAfterFailure = false; }},
      {"WMI", Level::Bad,
       [](Survey& s) {
         s.wmi.error = SystemError{SystemError::Kind::HResult, 0x80041003, ""};
       }},
      {"WMI classes", Level::Bad, [](Survey& s) { s.wmi.missingClasses = {"UPOS_Scanner"}; }},
      {"WMI provider", Level::Bad,
       [](Survey& s) { s.wmi.missingRegistrations = {"__Win32Provider"}; }},
      {"devices", Level::Bad,
       [](Survey& s) {
         s.wmi.answerError = SystemError{SystemError::Kind::HResult, 0x80041001, ""};
       }},
      {"devices", Level::Bad, [](Survey& s) { s.wmi.timedOut = true; }},
      {"devices", Level::Warning, [](Survey& s) { s.wmi.listed.clear(); }},
      {"events", Level::Bad,
       [](Survey& s) {
         s.wmi.subscriptionError = SystemError{SystemError::Kind::HResult, 0x80041003, ""};
       }},
      {"events", Level::Bad,
       [](Survey& s) {
         s.probe = Survey::Probe{{}, 3, false, 0};
       }},
      {"events", Level::Warning, [](Survey& s) { s.probe = Survey::Probe{}; }},
      {"events", Level::Bad,
       [](Survey& s) {
         s.probe = Survey::Probe{SystemError{SystemError::Kind::Win32, 10061, ""}, 0, false, 0};
       }},
      {"rights", Level::Bad,
       [](Survey& s) { s.rights.paths = pathsAround({"C:\\Quillmon\\quillmon.exe"}); }},
      {"write filter", Level::Warning,
       [](Survey& s) {
         s.writeFilter = {"C:", true, true};
       }},
      {"configuration", Level::Bad, [](Survey& s) { s.configuration.keys[0].problem = "why"; }},
      {"configuration", Level::Warning, [](Survey& s) { s.configuration.problems = {"line 1"}; }},
      {"configuration", Level::Warning, [](Survey& s) { s.configuration.unknownKeys = {"x"}; }},
      {"device server", Level::Bad,
       [](Survey& s) {
         s.sockets.requestError = SystemError{SystemError::Kind::Win32, 10061, ""};
       }},
      {"device server", Level::Bad,
       [](Survey& s) { s.service.path = BinaryPath::parse("C:/q.exe -o"); }},
      {"event port", Level::Bad, [](Survey& s) { s.sockets.eventPortOpen = false; }},
      {"trace", Level::Warning, [](Survey& s) { s.trace.hasGrown = true; }},
      {"trace log", Level::Warning, [](Survey& s) { s.trace.fileSizeLimit = 1000; }},
      {"trace log", Level::Warning, [](Survey& s) { s.trace.sizeComesFirst = true; }},
  };
  for (const Row& row : rows) {
    Survey survey = healthy();
    row.spoil(survey);
    EXPECT_EQ(verdictOf(survey, row.check), row.level) << row.check;
    const std::vector<Verdict> verdicts = judge(survey);
    EXPECT_EQ(isHealthy(verdicts), row.level != Level::Bad) << row.check;
    for (const Verdict& verdict : verdicts) {
      EXPECT_EQ(verdict.advice.empty(), verdict.level == Level::Good)
          << verdict.check << ": " << verdict.finding;
    }
  }
}

TEST(Survey, InTheProxyStrategyAConnectedDeviceServerIsEnough) {
  Survey survey = healthy();
  survey.service.path = BinaryPath::parse("C:/Quillmon/quillmon.exe -o");
  survey.sockets.deviceServers = 1;
  EXPECT_TRUE(isHealthy(judge(survey)));
  EXPECT_NE(toText(survey).find("1 connected to event port 42114"), std::string::npos);
  EXPECT_EQ(toJson(survey)["sockets"]["device_servers_connected"], 1);
}

TEST(Survey, AProbeThatArrivedIsAnEventThatArrives) {
  Survey survey = healthy();
  survey.probe = Survey::Probe{{}, 2, true, 12};
  EXPECT_EQ(verdictOf(survey, "events"), Level::Good);
  EXPECT_NE(toText(judge(survey)).find("events arrive: a probe did after 12 ms"),
            std::string::npos);
}

TEST(Survey, AWriteFilterIsNamedForTheTimeInWhichItProtects) {
  struct Row {
    bool protects;
    bool willProtect;
    const char* finding; ///< none where nothing is to be said
  };
  for (const Row& row : {Row{false, false, nullptr}, Row{true, true, "C: is protected (UWF)"},
                         Row{true, false, "until the next start C: is protected"},
                         Row{false, true, "from the next start on C: is protected"}}) {
    Survey survey = healthy();
    survey.writeFilter = {"C:", row.protects, row.willProtect};
    std::vector<std::string> findings;
    for (const Verdict& verdict : judge(survey)) {
      if (verdict.check == "write filter") {
        findings.push_back(verdict.finding);
      }
    }
    ASSERT_EQ(findings.size(), row.finding != nullptr ? 1U : 0U);
    EXPECT_TRUE(findings.empty() || findings[0].starts_with(row.finding)) << findings[0];
  }
}

TEST(Survey, ALogThatItsRotationDeletesIsNotTouchedWhileTheServiceRuns) {
  Survey survey = healthy();
  survey.trace.fileSizeLimit = 1000;
  EXPECT_FALSE(survey.isLogTouchable());
  survey.service.state = "stopped";
  EXPECT_TRUE(survey.isLogTouchable());
  survey.service.state = "running";
  survey.trace.backupCount = 1;
  EXPECT_TRUE(survey.isLogTouchable());
}

TEST(Survey, TheTextStaysWithinTheWidthHoweverLongTheFindings) {
  Survey survey = healthy();
  survey.service.pathText = "C:\\" + std::string(200, 'p') + ".exe";
  survey.wmi.answerError = SystemError{SystemError::Kind::HResult, 1, std::string(200, 'e')};
  survey.configuration.keys[0] = {"upos.requestSocket.Port", std::string(100, 'v'), "0", true,
                                  "why"};
  survey.configuration.problems = {std::string(200, 'x')};
  for (const std::string& text : {toText(survey), toText(judge(survey))}) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), 80U) << line;
    }
  }
}

TEST(Survey, TheTraceIsOnWhileItsEventIsSignalledOrTheLogGrows) {
  Survey survey = healthy();
  EXPECT_EQ(toJson(survey)["trace"]["on"], false);
  survey.trace.isSignalled = true;
  EXPECT_EQ(toJson(survey)["trace"]["on"], true);
  survey.trace.isSignalled = false;
  survey.trace.hasGrown = true;
  EXPECT_EQ(toJson(survey)["trace"]["on"], true);
  EXPECT_NE(toText(survey).find("on, until the service ends"), std::string::npos);
}

TEST(Survey, TheSourceOfAKeysValueIsReported) {
  Survey survey = healthy();
  EXPECT_EQ(toJson(survey)["configuration"]["keys"][0]["source"], "default");
  survey.configuration.keys[0].isFromFile = true;
  EXPECT_EQ(toJson(survey)["configuration"]["keys"][0]["source"], "file");
}

TEST(Survey, ExpectedDevicesHaveAVerdictOnlyIfTheyWereCompared) {
  Survey survey = healthy();
  const auto levels = [&] {
    std::vector<Level> result;
    for (const Verdict& verdict : judge(survey)) {
      if (verdict.check == "expected") {
        EXPECT_EQ(verdict.advice.empty(), verdict.level == Level::Good);
        result.push_back(verdict.level);
      }
    }
    return result;
  };
  EXPECT_EQ(levels(), std::vector<Level>());
  EXPECT_EQ(toJson(survey)["expected"], Json());
  survey.comparison = Comparison{2, {}, {}};
  EXPECT_EQ(levels(), std::vector{Level::Good});
  survey.comparison->added = {{"NEW1", "Scale", "", "", ""}};
  EXPECT_EQ(levels(), std::vector{Level::Warning});
  EXPECT_TRUE(isHealthy(judge(survey)));
  survey.comparison->missing = {{"GONE1", "Scanner", "", "", ""}};
  EXPECT_EQ(levels(), (std::vector{Level::Bad, Level::Warning}));
  EXPECT_FALSE(isHealthy(judge(survey)));
  EXPECT_NE(toText(survey).find("GONE1 (Scanner)"), std::string::npos);
  EXPECT_EQ(toJson(survey)["expected"]["new"][0]["device"], "NEW1");
}

} // namespace
