#pragma once

#include "quillmonctl/Baseline.h"
#include "quillmonctl/BinaryPath.h"
#include "quillmonctl/Failure.h"
#include "quillmonctl/Json.h"
#include "quillmonctl/Rights.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/// What can be known about the product on this machine, without judging it. What could not be
/// found out has its error beside it.
struct Survey {
  struct Service {
    std::optional<SystemError> error; ///< of the first call that failed; 1060: not installed
    std::string state;                ///< "running", "stopped", ...
    std::uint32_t processId = 0;
    std::string pathText; ///< as the service control manager holds it
    BinaryPath path;
    bool programExists = false;
    std::string programVersion;
    std::vector<std::string> hijackCandidates; ///< of BinaryPath, those that exist
    std::string start; ///< "automatic", "automatic (delayed)", "manual", "disabled"
    std::string account;
    std::vector<std::string> dependencies;
    bool restartsAfterFailure = false;

    bool isRunning() const { return state == "running"; }
    const char* strategy() const { return path.isProxy() ? "proxy" : "adapter"; }
  };
  struct Wmi {
    std::optional<SystemError> error; ///< of the connection
    std::size_t classes = 0;          ///< present ones
    std::vector<std::string> missingClasses;
    std::size_t registrations = 0; ///< of the provider: itself, for instances, for events
    std::vector<std::string> missingRegistrations;
    bool answers = false; ///< the provider was asked and took part
    bool timedOut = false;
    std::vector<KnownDevice> listed;
    std::optional<SystemError> answerError;
    std::optional<SystemError> subscriptionError;
  };
  struct Key {
    std::string name;
    std::string value;     ///< as it stands in the file, or the default
    std::string effective; ///< what the service reads
    bool isFromFile = false;
    std::string problem; ///< why the value is invalid; empty if it is valid
  };
  struct Configuration {
    std::string path;
    bool exists = false;
    std::optional<SystemError> error;
    std::vector<Key> keys;
    std::vector<std::string> unknownKeys;
    std::vector<std::string> problems;
  };
  struct Sockets {
    unsigned requestPort = 0;
    std::optional<SystemError> requestError; ///< none: reachable; adapter strategy
    unsigned eventPort = 0;
    std::string eventAddress; ///< where it is bound in the proxy strategy, as it is configured
    bool eventPortOpen = false;
    std::size_t deviceServers = 0; ///< connected to the event port; proxy strategy
  };
  struct Trace {
    bool isSignalled = false;
    bool hasGrown = false; ///< the log, while the provider was asked
    std::string log;
    std::optional<std::uint64_t> size;
    std::uint64_t written = 0;     ///< when, in the system's units
    std::string configurationFile; ///< empty where no INSTALLDIR names one
    int fileSizeLimit = 0;
    int backupCount = 0;
    bool sizeComesFirst = false; ///< in the file: FileSize before BackupCount

    bool isOn() const { return isSignalled || hasGrown; }
    /// A rotation then deletes the log itself: whoever holds it open may keep it from coming back.
    bool rotationDeletes() const { return fileSizeLimit > 0 && backupCount == 0; }
  };
  struct Rights {
    std::vector<PathRights> paths;
    std::vector<std::string> administrators; ///< accounts that are known to be some
  };
  /// Windows' Unified Write Filter, which forgets at a restart what was written since the last.
  struct WriteFilter {
    std::string volume; ///< of program and configuration; empty where nothing is known of a filter
    bool protects = false;
    bool willProtect = false; ///< from the next start on
  };
  struct Probe { ///< an event that was sent to the service
    std::optional<SystemError> error;
    unsigned sent = 0; ///< how often; 0: nobody listens on the event port
    bool arrived = false;
    std::uint64_t milliseconds = 0; ///< until it came
  };

  std::string toolVersion;
  std::string system; ///< "Windows 10.0.19045"
  Service service;
  Wmi wmi;
  std::optional<Comparison> comparison; ///< none without a baseline or an answer
  Configuration configuration;
  Sockets sockets;
  Trace trace;
  Rights rights;
  WriteFilter writeFilter;
  std::optional<Probe> probe; ///< none where nobody asked for one

  /// Nobody may hold a log open that the service is about to delete.
  bool isLogTouchable() const { return !trace.rotationDeletes() || !service.isRunning(); }
};

/// Looks at everything but what follows `trace`; asks the provider once, for at most `seconds`, and
/// compares what it lists with the baseline. Throws nothing but what the library throws without
/// memory. COM is needed.
Survey surveySystem(unsigned seconds, const std::optional<Baseline>& baseline);

/// Parts of it.
Survey::Configuration surveyConfiguration();
Survey::Service surveyService();
/// Classes and registrations only.
Survey::Wmi surveyRegistration();
Survey::Trace surveyTrace(const Survey::Service& service);

/// For doctor alone, from what the survey has found out so far. The first may ask a domain for
/// names.
Survey::Rights surveyRights(const Survey& survey);
Survey::WriteFilter surveyWriteFilter(unsigned seconds);
/// Subscribes, sends an event to the service's event port, and waits for it, for about `seconds`.
/// Every subscriber gets it. COM is needed.
Survey::Probe probeEvents(const Survey& survey, unsigned seconds);

/// One verdict for each thing that support asks for.
struct Verdict {
  enum class Level { Good, Warning, Bad };
  Level level;
  std::string check; ///< "service", "binary path", ...
  std::string finding;
  std::string advice; ///< empty if good
};
std::vector<Verdict> judge(const Survey& survey);

Json toJson(const Survey& survey);
std::string toText(const Survey& survey);
Json toJson(const std::vector<Verdict>& verdicts);
std::string toText(const std::vector<Verdict>& verdicts);

/// No verdict is bad.
bool isHealthy(const std::vector<Verdict>& verdicts);

} // namespace ctl
