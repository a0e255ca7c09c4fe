// What the survey finds out from the system; what it makes of it is in Survey.cpp.

#include "quillmonctl/ConfigKeys.h"
#include "quillmonctl/IgnoreCase.h"
#include "quillmonctl/MofClasses.h"
#include "quillmonctl/ProductNames.h"
#include "quillmonctl/PropertiesFile.h"
#include "quillmonctl/Service.h"
#include "quillmonctl/SocketLibrary.h"
#include "quillmonctl/Survey.h"
#include "quillmonctl/System.h"
#include "quillmonctl/Wmi.h"
#include "trace/LogLocation.h"
#include "trace/TraceConfig.h"
#include "win/Configuration.h"
#include "win/Handles.h"

#include <fmt/format.h>
#include <iphlpapi.h>

#include <algorithm>
#include <memory>
#include <thread>

using trace::fallbackLogPath;
using trace::installedLogLocation;
using trace::LogLocation;
using trace::TraceConfig;
using trace::traceConfigurationFile;
using trace::TraceSetting;

namespace ctl {
namespace {

constexpr int kConnectTimeout = 3; // seconds

/// Neither makes the file, as the service's own test would, nor opens it: a rotation that meets an
/// open log may go wrong.
bool isLogWritable(const std::string& path) {
  const std::string name = utf8FromAnsi(path);
  const DWORD attributes = GetFileAttributesW(wide(name).c_str());
  return attributes == INVALID_FILE_ATTRIBUTES
             ? exists(name.substr(0, name.rfind('\\')))
             : (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY)) == 0;
}

/// Connects to the port on this machine and closes at once: 0, or the error.
int tryConnect(unsigned port) {
  const SocketLibrary library;
  const win::Socket socket(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  u_long nonBlocking = 1;
  ioctlsocket(socket.get(), static_cast<long>(FIONBIO), &nonBlocking);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    return 0;
  }
  if (WSAGetLastError() != WSAEWOULDBLOCK) {
    return WSAGetLastError();
  }
  fd_set connected = {};
  fd_set failed = {};
  FD_SET(socket.get(), &connected);
  FD_SET(socket.get(), &failed);
  timeval timeout = {kConnectTimeout, 0};
  if (select(0, nullptr, &connected, &failed, &timeout) == 0) {
    return WSAETIMEDOUT;
  }
  int error = 0;
  int size = sizeof error;
  getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
  return error;
}

/// A table of the system's sockets.
template <class Table, class Get>
std::vector<BYTE> socketTable(Get&& get) {
  DWORD size = 0;
  std::vector<BYTE> bytes(sizeof(Table));
  DWORD result = get(nullptr, &size);
  while (result == ERROR_INSUFFICIENT_BUFFER) { // it may grow meanwhile
    bytes.assign(size, 0);
    result = get(bytes.data(), &size);
  }
  if (result != NO_ERROR) {
    std::fill(bytes.begin(), bytes.end(), BYTE{0});
  }
  return bytes;
}

unsigned portOf(DWORD field) {
  return ntohs(static_cast<u_short>(field));
}

/// Wine does not know whose a TCP socket is and says 0, which on Windows owns no open one.
bool isOwner(DWORD process, const Survey::Service& service) {
  return process == service.processId || process == 0;
}

void surveyEventPort(const Survey::Service& service, Survey::Sockets& sockets) {
  const auto hasPort = [&](const auto& table) {
    return std::any_of(table.table, table.table + table.dwNumEntries, [&](const auto& row) {
      return portOf(row.dwLocalPort) == sockets.eventPort && isOwner(row.dwOwningPid, service);
    });
  };
  if (!service.path.isProxy()) {
    const auto bytes = socketTable<MIB_UDPTABLE_OWNER_PID>([](void* table, DWORD* size) {
      return GetExtendedUdpTable(table, size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
    });
    sockets.eventPortOpen = hasPort(*reinterpret_cast<const MIB_UDPTABLE_OWNER_PID*>(bytes.data()));
    return;
  }
  const auto listening = socketTable<MIB_TCPTABLE_OWNER_PID>([](void* table, DWORD* size) {
    return GetExtendedTcpTable(table, size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_LISTENER, 0);
  });
  sockets.eventPortOpen =
      hasPort(*reinterpret_cast<const MIB_TCPTABLE_OWNER_PID*>(listening.data()));
  if (!sockets.eventPortOpen) {
    return;
  }
  // Who listens has the connections. Their owners are not asked for: Wine takes milliseconds for
  // each, and there may be thousands that have ended.
  const auto connected = socketTable<MIB_TCPTABLE>([](void* table, DWORD* size) {
    return GetExtendedTcpTable(table, size, FALSE, AF_INET, TCP_TABLE_BASIC_CONNECTIONS, 0);
  });
  const auto* const connections = reinterpret_cast<const MIB_TCPTABLE*>(connected.data());
  for (DWORD i = 0; i < connections->dwNumEntries; ++i) {
    const MIB_TCPROW& row = connections->table[i];
    if (portOf(row.dwLocalPort) == sockets.eventPort && row.dwState == MIB_TCP_STATE_ESTAB) {
      ++sockets.deviceServers;
    }
  }
}

const Survey::Key& findKey(const Survey::Configuration& configuration, const char* name) {
  return *std::find_if(configuration.keys.begin(), configuration.keys.end(),
                       [&](const Survey::Key& key) { return key.name == name; });
}

bool isTrue(const Json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && *found == true;
}

/// As the service takes it: an unsigned 16-bit number.
unsigned configuredPort(const Survey::Configuration& configuration, const char* name) {
  return static_cast<std::uint16_t>(std::stoul(findKey(configuration, name).effective));
}

Survey::Sockets surveySockets(const Survey& survey) {
  Survey::Sockets sockets;
  sockets.requestPort = configuredPort(survey.configuration, "upos.requestSocket.Port");
  sockets.eventPort = configuredPort(survey.configuration, "provider.eventSocket.Port");
  sockets.eventAddress = findKey(survey.configuration, "provider.eventSocket.IP").effective;
  if (!survey.service.path.isProxy()) {
    if (const int error = tryConnect(sockets.requestPort); error != 0) {
      sockets.requestError = win32Error(static_cast<DWORD>(error));
    }
  }
  surveyEventPort(survey.service, sockets);
  return sockets;
}

void checkRegistration(Wmi& wmi, Survey::Wmi& result) {
  for (const MofClass& each : kMofClasses) {
    if (wmi.has(each.name)) {
      ++result.classes;
    } else {
      result.missingClasses.emplace_back(each.name);
    }
  }
  const std::string provider = fmt::format("__Win32Provider.Name=\"{}\"", kProvider);
  const std::string reference = fmt::format("__Win32Provider.Name=\\\"{}\\\"", kProvider);
  const auto check = [&](const char* cls, const std::string& path) {
    if (wmi.has(path)) {
      ++result.registrations;
    } else {
      result.missingRegistrations.emplace_back(cls);
    }
  };
  check("__Win32Provider", provider);
  for (const char* const cls : {"__InstanceProviderRegistration", "__EventProviderRegistration"}) {
    check(cls, fmt::format("{}.Provider=\"{}\"", cls, reference));
  }
}

Survey::Wmi surveyWmi(unsigned seconds) {
  Survey::Wmi result;
  try {
    Wmi wmi;
    checkRegistration(wmi, result);
    try {
      const Wmi::End end = wmi.instances("UPOS_LogicalDevice", seconds, [&](const Json& device) {
        result.listed.push_back(KnownDevice::of(device));
        return true;
      });
      result.timedOut = end == Wmi::End::TimedOut;
      result.answers = !result.timedOut;
    } catch (const Failure& failure) {
      result.answerError = errorOf(failure);
    }
    try {
      wmi.subscribe(fmt::format("SELECT * FROM {}", kEventClass));
    } catch (const Failure& failure) {
      result.subscriptionError = errorOf(failure);
    }
  } catch (const Failure& failure) {
    result.error = errorOf(failure);
  }
  return result;
}

std::string systemName() {
  using GetVersion = LONG(WINAPI*)(RTL_OSVERSIONINFOW*);
  RTL_OSVERSIONINFOW version = {};
  version.dwOSVersionInfoSize = sizeof version;
  // The documented call answers what the program was made for; this one what there is.
  const auto get = reinterpret_cast<GetVersion>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
  if (get != nullptr) {
    get(&version);
  }
  return fmt::format("Windows {}.{}.{}", version.dwMajorVersion, version.dwMinorVersion,
                     version.dwBuildNumber);
}

} // namespace

Survey::Wmi surveyRegistration() {
  Survey::Wmi result;
  try {
    Wmi wmi;
    checkRegistration(wmi, result);
  } catch (const Failure& failure) {
    result.error = errorOf(failure);
  }
  return result;
}

Survey::Service surveyService() {
  Survey::Service result;
  try {
    const Service service(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
    const SERVICE_STATUS_PROCESS status = service.status();
    result.state = stateText(status.dwCurrentState);
    result.processId = status.dwProcessId;
    const Service::Configuration configuration = service.configuration();
    result.pathText = configuration.path;
    result.path = BinaryPath::parse(configuration.path);
    result.programExists = exists(result.path.program);
    result.programVersion = fileVersion(result.path.program);
    for (const std::string& program : result.path.hijackCandidates()) {
      if (exists(program)) {
        result.hijackCandidates.push_back(program);
      }
    }
    result.start = configuration.startType == SERVICE_AUTO_START
                       ? (service.isDelayed() ? "automatic (delayed)" : "automatic")
                   : configuration.startType == SERVICE_DISABLED ? "disabled"
                                                                 : "manual";
    result.account = configuration.account;
    result.dependencies = configuration.dependencies;
    result.restartsAfterFailure = service.isRestarted();
  } catch (const Failure& failure) {
    result.error = errorOf(failure);
  }
  return result;
}

Survey::Configuration surveyConfiguration() {
  Survey::Configuration result;
  result.path = serviceDrive() + configuration::kFile;
  std::optional<std::string> text;
  try {
    text = readFile(result.path);
  } catch (const Failure& failure) {
    result.error = errorOf(failure);
  }
  result.exists = text.has_value();
  const PropertiesFile file(text.value_or(""));
  const std::string path = ansi(result.path);
  for (const ConfigKey& known : configKeys()) {
    Survey::Key key;
    key.name = known.name;
    const std::optional<std::string> value = file.value(known.name);
    key.isFromFile = value.has_value();
    key.value = value ? utf8FromAnsi(*value) : known.defaultValue;
    // The same call as the service's: what the file seems to say does not count, what is read does.
    key.effective =
        known.kind == ConfigKey::Kind::Number
            ? std::to_string(static_cast<int>(
                  configuration::readInt(known.name, std::stoi(known.defaultValue), path.c_str())))
            : utf8FromAnsi(
                  configuration::readText(known.name, known.defaultValue.c_str(), path.c_str()));
    key.problem = validationError(known, key.value);
    if (key.problem.empty() && key.effective != key.value) {
      key.problem = "the service reads something else";
    }
    result.keys.push_back(std::move(key));
  }
  for (const std::string& name : file.keys()) {
    if (findConfigKey(name) == nullptr) {
      result.unknownKeys.push_back(utf8FromAnsi(name));
    }
  }
  for (const std::string& problem : file.problems()) {
    result.problems.push_back(utf8FromAnsi(problem));
  }
  return result;
}

Survey::Trace surveyTrace(const Survey::Service& service) {
  Survey::Trace trace;
  const win::Handle event(OpenEventW(SYNCHRONIZE, FALSE, kTraceEvent));
  trace.isSignalled = event && WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0;
  const LogLocation location = installedLogLocation(isLogWritable);
  // Without a service the log would lie beside a program that stands beside this one.
  const std::string program =
      service.path.program.empty() ? programFolder() + "\\quillmon.exe" : service.path.program;
  trace.log =
      location.path.empty() ? fallbackLogPath(program) : absolutePath(utf8FromAnsi(location.path));
  if (const std::optional<FileStamp> mark = fileStamp(trace.log)) {
    trace.size = mark->size;
    trace.written = mark->written;
  }
  if (location.installDir) {
    const std::string path = traceConfigurationFile(*location.installDir);
    trace.configurationFile = utf8FromAnsi(path);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "r"),
                                                               &std::fclose);
    if (file) {
      bool countIsKnown = false;
      TraceConfig::readFile(file.get(), [&](const TraceSetting& setting) {
        if (setting.key == TraceSetting::Key::FileSize) {
          trace.fileSizeLimit = setting.value;
          trace.sizeComesFirst = trace.sizeComesFirst || (setting.value > 0 && !countIsKnown);
        } else {
          trace.backupCount = setting.value;
          countIsKnown = true;
        }
      });
    }
  }
  return trace;
}

Survey::WriteFilter surveyWriteFilter(unsigned seconds) {
  Survey::WriteFilter result;
  result.volume = serviceDrive();
  bool isOn = false;
  bool willBeOn = false;
  try {
    Wmi wmi(L"root\\standardcimv2\\embedded");
    wmi.instances("UWF_Filter", seconds, [&](const Json& filter) {
      isOn = isTrue(filter, "CurrentEnabled");
      willBeOn = isTrue(filter, "NextEnabled");
      return true;
    });
    wmi.instances("UWF_Volume", seconds, [&](const Json& volume) {
      const auto letter = volume.find("DriveLetter");
      if (letter != volume.end() && letter->is_string() &&
          equalsIgnoreCase(letter->get<std::string>(), result.volume)) {
        const bool isNow = isTrue(volume, "CurrentSession");
        (isNow ? result.protects : result.willProtect) =
            isTrue(volume, "Protected") && (isNow ? isOn : willBeOn);
      }
      return true;
    });
  } catch (const Failure&) { // most machines have no such filter
    result = {};
  }
  return result;
}

Survey surveySystem(unsigned seconds, const std::optional<Baseline>& baseline) {
  Survey survey;
  survey.toolVersion = QUILLMON_VERSION;
  survey.system = systemName();
  survey.service = surveyService();
  survey.configuration = surveyConfiguration();
  survey.trace = surveyTrace(survey.service);
  survey.wmi = surveyWmi(seconds);
  if (baseline && survey.wmi.answers) {
    survey.comparison = compare(*baseline, survey.wmi.listed);
  }
  survey.sockets = surveySockets(survey);
  // The question to the provider is traced where the trace is on, whatever became of its event.
  if (const std::optional<FileStamp> mark = fileStamp(survey.trace.log)) {
    survey.trace.hasGrown =
        mark->size != survey.trace.size || mark->written != survey.trace.written;
    survey.trace.size = mark->size;
  }
  return survey;
}

} // namespace ctl
