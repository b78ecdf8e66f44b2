#include "ctl/daemon/daemonProcess.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "core/globals.h"
#include "ctl/daemon/process.h"
#include "ctl/daemon/serviceManager.h"
#include "ctl/failure.h"
#include "ctl/session/config.h"

namespace {

namespace fs = std::filesystem;

/// The value of -f as the daemon reads it, or its default.
std::string configArgument(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  std::string path = pathToConfigFile;
  optind = 0;  // restarts the scan
  opterr = 0;
  const auto count = static_cast<int>(arguments.size());
  // koductl uses getopt only here, and has one thread.
  for (int option = 0;  // NOLINTNEXTLINE(concurrency-mt-unsafe)
       (option = getopt(count, pointers.data(), "f:D")) != -1;) {
    if (option == 'f') {
      path = optarg;
    }
  }
  return path;
}

bool hasConfig(pid_t process, const std::string& mainFile) {
  std::error_code error;
  // A relative path starts at the daemon's directory; joining ignores the directory for an absolute
  // one.
  return fs::equivalent(fs::path(directoryOf(process)) / configArgument(argumentsOf(process)),
                        mainFile, error);
}

/// The possible paths of the daemon's executable: beside koductl in a build folder, and where the
/// package or a manual installation puts the daemon of this koductl.
std::vector<fs::path> executables() {
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  return {folder / "koducron", folder.parent_path() / "sbin/koducron", "/usr/sbin/koducron"};
}

bool runsDaemon(pid_t process) {
  const std::vector<fs::path> allowed = executables();
  return std::ranges::any_of(allowed,
                             [&](const fs::path& path) { return isRunning(process, path); });
}

/// True when writing the log is evidence: it is a regular file and not writable by all users.
bool isLogGuarded(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_mode & S_IWOTH) == 0;
}

bool isDaemonOf(pid_t process, const DaemonConfig& config) {
  return runsDaemon(process) && hasConfig(process, config.mainFile) &&
         isLogGuarded(fs::path(directoryOf(process)) / config.logFile) &&
         holdsForWriting(process, config.logFile);
}

/// The processes that have the daemon's executable and configuration and write its log.
std::vector<pid_t> writersOfLog(const DaemonConfig& config) {
  std::vector<pid_t> found;
  std::vector<pid_t> parents;
  for (const pid_t process : processes()) {
    const pid_t parent = statusOf(process).parent;  // asked before it may have ended
    if (isDaemonOf(process, config)) {
      found.push_back(process);
      parents.push_back(parent);
    }
  }
  // A child of the daemon has its executable and descriptors until it executes a plugin.
  std::vector<pid_t> daemons;
  for (std::size_t i = 0; i < found.size(); ++i) {
    if (std::ranges::count(found, parents[i]) == 0) {
      daemons.push_back(found[i]);
    }
  }
  return daemons;
}

/// The process of the service manager's unit, when that has this configuration.
std::optional<pid_t> findService(const DaemonConfig& config) {
  const std::optional<pid_t> process = daemonOfServiceManager();
  if (!process || !hasConfig(*process, config.mainFile)) {
    return std::nullopt;
  }
  // A user who may not read its executable cannot take its rights either.
  if (const std::string path = executableOf(*process); !path.empty() && !runsDaemon(*process)) {
    throw Failure(
        kNotPermitted,
        fmt::format("the service koducron runs {} (pid {}), which is not the daemon of this "
                    "koductl: use the koductl that was installed with it",
                    path, *process));
  }
  return process;
}

/// The only process with the daemon's executable that writes its log.
std::optional<pid_t> findWriter(const DaemonConfig& config) {
  const std::vector<pid_t> found = writersOfLog(config);
  if (found.size() > 1) {
    throw Failure(
        kNotPermitted,
        fmt::format("{} processes write the log {}, and each could be the daemon (pids {}): "
                    "stop all but one",
                    found.size(), config.logFile, fmt::join(found, ", ")));
  }
  return found.empty() ? std::nullopt : std::optional(found.front());
}

/// Nothing when it has ended, or become another program since it was found: a set-user-ID one, with
/// other users.
std::optional<DaemonIdentity> identityOf(pid_t process) {
  const ProcessStatus status = statusOf(process);
  if (!status.isThere || (!executableOf(process).empty() && !runsDaemon(process))) {
    return std::nullopt;
  }
  if (!status.isOneUser()) {
    throw Failure(kNotPermitted,
                  fmt::format("the daemon (pid {}) runs with more than one user or group, so its "
                              "rights are ambiguous: restart it as one user",
                              process));
  }
  DaemonIdentity identity;
  identity.pid = process;
  identity.uid = status.uids.front();
  identity.gid = status.gids.front();
  identity.groups = status.groups;
  identity.umask = status.umask;
  identity.directory = directoryOf(process);
  return identity;
}

void addGroupsOfUser(DaemonIdentity& identity) {
  const passwd* user = getpwuid(identity.uid);
  if (user == nullptr) {
    return;
  }
  identity.gid = user->pw_gid;
  int count = 0;
  getgrouplist(user->pw_name, user->pw_gid, nullptr, &count);  // tells how many
  identity.groups.resize(static_cast<std::size_t>(count));
  if (getgrouplist(user->pw_name, user->pw_gid, identity.groups.data(), &count) < 0) {
    throw Failure(kNotPermitted,
                  fmt::format("cannot determine the groups of user {}", user->pw_name));
  }
  identity.groups.resize(static_cast<std::size_t>(count));
}

/// True when only root can have made the folder entry or given it its name.
bool isRootsEntry(const fs::path& path) {
  struct stat status {};
  const bool isThere = lstat(path.c_str(), &status) == 0;
  // In a sticky folder everybody makes entries, but renames no other's.
  const bool isOpen = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !S_ISLNK(status.st_mode) &&
                      !(S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0);
  return isThere && status.st_uid == 0 && !isOpen;
}

/// True when the file and every folder and link on the way to it are.
bool isRootsAlone(const fs::path& path) {
  std::error_code error;
  const fs::path target = fs::canonical(path, error);
  for (const fs::path& way : {fs::absolute(path, error), target}) {
    for (fs::path entry = way; entry != entry.root_path(); entry = entry.parent_path()) {
      if (!isRootsEntry(entry)) {
        return false;
      }
    }
  }
  return !target.empty();
}

/// Where no daemon runs: the user whom its files belong to.
DaemonIdentity identityOfOwner(const DaemonConfig& config) {
  DaemonIdentity identity;
  struct stat status {};
  const bool hasLog = stat(config.logFile.c_str(), &status) == 0;
  const bool hasOwner = hasLog || stat(config.outputDirectory.c_str(), &status) == 0;
  identity.uid = hasOwner ? status.st_uid : geteuid();
  identity.gid = hasOwner ? status.st_gid : getegid();
  // A folder that root made does not make the daemon root's, nor does a log that others may write,
  // or have made out of another file of root's by a link.
  identity.isKnown = identity.uid != 0 || (hasLog && isRootsAlone(config.logFile));
  addGroupsOfUser(identity);
  return identity;
}

std::vector<gid_t> groupsOfThisProcess() {
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  groups.resize(
      static_cast<std::size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
  return groups;
}

}  // namespace

std::string DaemonIdentity::userName() const {
  const passwd* user = getpwuid(uid);
  return user == nullptr ? std::to_string(uid) : user->pw_name;
}

bool DaemonIdentity::canBeTaken() const {
  return geteuid() == 0 || geteuid() == uid;
}

void DaemonIdentity::requireKnown() const {
  if (!isKnown && geteuid() == 0) {
    throw Failure(
        kNotPermitted,
        "no daemon with this configuration is running here, and its files do not show its user: "
        "start it, or run koductl as its user");
  }
}

DaemonIdentity findDaemon(const DaemonConfig& config) {
  constexpr int kAttempts = 3;  // one that restarts may end just now
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::optional<pid_t> service = findService(config);
    const std::optional<pid_t> process = service ? service : findWriter(config);
    if (!process) {
      return identityOfOwner(config);
    }
    if (auto identity = identityOf(*process)) {
      identity->isService = service.has_value();
      return *identity;
    }
  }
  throw Failure(kNotPermitted, "the daemon ended just now: try again");
}

AsDaemon::AsDaemon(const DaemonIdentity& identity) {
  if (geteuid() != 0 || identity.uid == 0) {
    return;
  }
  ownGroup = getegid();
  ownGroups = groupsOfThisProcess();
  isTaken = true;
  // In this order: groups can be changed only before the user is.
  if (setgroups(identity.groups.size(), identity.groups.data()) != 0 ||
      setegid(identity.gid) != 0 || seteuid(identity.uid) != 0) {
    throw Failure(kNotPermitted, "cannot take the rights of user " + identity.userName());
  }
}

AsDaemon::~AsDaemon() {
  if (isTaken) {
    std::ignore = seteuid(0);
    std::ignore = setegid(ownGroup);
    std::ignore = setgroups(ownGroups.size(), ownGroups.data());
  }
}

void becomeDaemonUser(const DaemonIdentity& identity) {
  identity.requireKnown();
  if (!identity.canBeTaken()) {
    throw Failure(kNotPermitted, fmt::format("the daemon runs as user {}: run koductl as that user "
                                             "(sudo -u {}) or as root",
                                             identity.userName(), identity.userName()));
  }
  const bool isRoot = geteuid() == 0;
  const bool isDone = chdir(identity.directory.c_str()) == 0 &&
                      (!isRoot || (setgroups(identity.groups.size(), identity.groups.data()) == 0 &&
                                   setgid(identity.gid) == 0 && setuid(identity.uid) == 0));
  if (!isDone) {
    throw Failure(kNotPermitted, fmt::format("cannot change to user {} and folder {}",
                                             identity.userName(), identity.directory));
  }
  ::umask(identity.umask);
}
