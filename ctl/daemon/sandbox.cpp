#include "ctl/daemon/sandbox.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string_view>

#include "ctl/daemon/childProcess.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/daemon/serviceManager.h"
#include "ctl/failure.h"

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr const char* kSystemdRun = "/usr/bin/systemd-run";

/// What decides which files, rights and system calls a plugin of the unit has.
const std::vector<std::string> kProperties = {"User",
                                              "Group",
                                              "SupplementaryGroups",
                                              "UMask",
                                              "AmbientCapabilities",
                                              "BindPaths",
                                              "BindReadOnlyPaths",
                                              "CapabilityBoundingSet",
                                              "ExecPaths",
                                              "IPAddressAllow",
                                              "IPAddressDeny",
                                              "InaccessiblePaths",
                                              "LimitAS",
                                              "LimitASSoft",
                                              "LimitFSIZE",
                                              "LimitFSIZESoft",
                                              "LimitNOFILE",
                                              "LimitNOFILESoft",
                                              "LimitNPROC",
                                              "LimitNPROCSoft",
                                              "LockPersonality",
                                              "MemoryDenyWriteExecute",
                                              "MemoryMax",
                                              "NoExecPaths",
                                              "NoNewPrivileges",
                                              "PrivateDevices",
                                              "PrivateIPC",
                                              "PrivateNetwork",
                                              "PrivateTmp",
                                              "PrivateUsers",
                                              "ProcSubset",
                                              "ProtectClock",
                                              "ProtectControlGroups",
                                              "ProtectHome",
                                              "ProtectHostname",
                                              "ProtectKernelLogs",
                                              "ProtectKernelModules",
                                              "ProtectKernelTunables",
                                              "ProtectProc",
                                              "ProtectSystem",
                                              "ReadOnlyPaths",
                                              "ReadWritePaths",
                                              "RestrictAddressFamilies",
                                              "RestrictNamespaces",
                                              "RestrictRealtime",
                                              "RestrictSUIDSGID",
                                              "RootDirectory",
                                              "SystemCallArchitectures",
                                              "SystemCallErrorNumber",
                                              "SystemCallFilter",
                                              "TasksMax"};

/// A value that a unit has without any setting.
bool isDefault(const std::string& name, const std::string& value) {
  constexpr std::array<std::string_view, 8> kDefaults = {
      "", "no", "default", "all", "0", "infinity", "[not set]", "2147483646"};
  // An empty bounding set leaves no capability.
  return name != "CapabilityBoundingSet" && std::ranges::count(kDefaults, value) > 0;
}

volatile std::sig_atomic_t caught = 0;

/// Lets SIGINT and SIGTERM interrupt a wait, until it is destroyed.
class CaughtSignals {
 public:
  CaughtSignals() {
    struct sigaction action {};
    action.sa_handler = [](int number) { caught = number; };  // without SA_RESTART
    sigaction(SIGINT, &action, &interrupt);
    sigaction(SIGTERM, &action, &termination);
  }
  ~CaughtSignals() {
    sigaction(SIGINT, &interrupt, nullptr);
    sigaction(SIGTERM, &termination, nullptr);
  }
  CaughtSignals(const CaughtSignals&) = delete;
  CaughtSignals& operator=(const CaughtSignals&) = delete;

 private:
  struct sigaction interrupt {};
  struct sigaction termination {};
};

}  // namespace

std::vector<std::string> sandboxSettings(const std::string& properties) {
  std::vector<std::string> settings;
  std::istringstream lines(properties);
  std::string hardLimit;  // the line of it comes before that of the soft one
  for (std::string line; std::getline(lines, line);) {
    const auto sign = std::min(line.find('='), line.size());
    std::string name = line.substr(0, sign);
    std::string value = sign < line.size() ? line.substr(sign + 1) : "";
    const bool isSoft = name.starts_with("Limit") && name.ends_with("Soft");
    if (isSoft) {
      name.resize(name.size() - 4);
      value = value == hardLimit ? value : fmt::format("{}:{}", value, hardLimit);
    } else if (name.starts_with("Limit")) {
      hardLimit = value;
      continue;
    }
    if (!isDefault(name, value)) {
      settings.push_back(fmt::format("{}={}", name, value));
    }
  }
  return settings;
}

std::string runInSandbox(const DaemonIdentity& daemon, const std::string& mode,
                         const std::string& input) {
  const std::string unit = fmt::format("koducron-test-{}.service", getpid());
  std::vector<std::string> arguments = {
      kSystemdRun,      "--pipe",
      "--wait",         "--collect",
      "--quiet",        "--service-type=exec",
      "--unit=" + unit, "--working-directory=" + daemon.directory};
  for (const std::string& setting : sandboxSettings(unitProperties(kProperties))) {
    arguments.push_back("--property=" + setting);
  }
  std::error_code error;
  arguments.push_back(std::filesystem::read_symlink("/proc/self/exe", error));
  arguments.push_back(mode);
  const CaughtSignals signals;
  const ChildResult result = runProgram(arguments, input, true);
  if (caught != 0) {
    runProgram({kSystemctl, "kill", "--signal=KILL", unit});
    _exit(128 + caught);
  }
  if (!result.isDone()) {
    throw Failure(kNotPermitted,
                  fmt::format("cannot run the plugin in the sandbox of {}: systemd-run ended with "
                              "status {}",
                              kServiceUnit, result.status));
  }
  return result.output;
}
