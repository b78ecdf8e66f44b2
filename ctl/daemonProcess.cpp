#include "ctl/daemonProcess.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "core/globals.h"
#include "ctl/config.h"
#include "ctl/failure.h"

namespace {

namespace fs = std::filesystem;

/// The arguments of a process; none when it is gone.
std::vector<std::string> argumentsOf(const fs::path& process) {
  std::ifstream file(process / "cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) {
    arguments.push_back(argument);
  }
  return arguments;
}

/// The value of -f as the daemon reads it, or its default.
std::string configArgument(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  std::string path = pathToConfigFile;
  optind = 0;  // begins anew
  opterr = 0;
  const auto count = static_cast<int>(arguments.size());
  // Nothing else in koductl reads a command line with it, and there is one thread.
  for (int option = 0;  // NOLINTNEXTLINE(concurrency-mt-unsafe)
       (option = getopt(count, pointers.data(), "f:D")) != -1;) {
    if (option == 'f') {
      path = optarg;
    }
  }
  return path;
}

std::string directoryOf(const fs::path& process) {
  std::error_code error;
  const fs::path directory = fs::read_symlink(process / "cwd", error);
  return error ? "/" : directory.string();
}

bool isDaemonWith(const fs::path& process, const std::string& mainFile) {
  const std::vector<std::string> arguments = argumentsOf(process);
  if (arguments.empty() ||
      !fs::path(arguments.front()).filename().string().starts_with("koducron")) {
    return false;
  }
  std::error_code error;
  // A path that is relative is so to the daemon's directory; joining drops it for an absolute one.
  return fs::equivalent(fs::path(directoryOf(process)) / configArgument(arguments), mainFile,
                        error);
}

/// User, groups and mode mask out of /proc/PID/status.
void readStatus(const fs::path& process, DaemonIdentity& identity) {
  std::ifstream file(process / "status");
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    if (name == "Umask:") {
      fields >> std::oct >> identity.umask;
    } else if (name == "Uid:") {
      fields >> identity.uid >> identity.uid;  // the second is the effective one
    } else if (name == "Gid:") {
      fields >> identity.gid >> identity.gid;
    } else if (name == "Groups:") {
      for (gid_t group = 0; fields >> group;) {
        identity.groups.push_back(group);
      }
    }
  }
}

std::optional<pid_t> numberOf(const fs::path& process) {
  const std::string name = process.filename();
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  return error == std::errc() && end == name.data() + name.size() ? std::optional(pid)
                                                                  : std::nullopt;
}

std::optional<DaemonIdentity> findRunning(const std::string& mainFile) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const auto pid = numberOf(entry.path());
    if (pid && isDaemonWith(entry.path(), mainFile)) {
      DaemonIdentity identity;
      identity.pid = pid;
      identity.directory = directoryOf(entry.path());
      readStatus(entry.path(), identity);
      return identity;
    }
  }
  return std::nullopt;
}

void addGroupsOfUser(DaemonIdentity& identity) {
  const passwd* user = getpwuid(identity.uid);
  if (user == nullptr) {
    return;
  }
  identity.gid = user->pw_gid;
  int count = 256;
  identity.groups.resize(static_cast<std::size_t>(count));
  getgrouplist(user->pw_name, user->pw_gid, identity.groups.data(), &count);
  identity.groups.resize(static_cast<std::size_t>(count));
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

DaemonIdentity findDaemon(const DaemonConfig& config) {
  if (auto running = findRunning(config.mainFile)) {
    return *running;
  }
  DaemonIdentity identity;
  identity.directory = "/";
  struct stat status {};
  const bool isThere = stat(config.outputDirectory.c_str(), &status) == 0;
  identity.uid = isThere ? status.st_uid : geteuid();
  identity.gid = isThere ? status.st_gid : getegid();
  addGroupsOfUser(identity);
  return identity;
}

AsDaemon::AsDaemon(const DaemonIdentity& identity) {
  if (geteuid() != 0 || identity.uid == 0) {
    return;
  }
  ownGroup = getegid();
  ownGroups = groupsOfThisProcess();
  isTaken = true;
  // In this order: the user last, since nobody else may change groups.
  if (setgroups(identity.groups.size(), identity.groups.data()) != 0 ||
      setegid(identity.gid) != 0 || seteuid(identity.uid) != 0) {
    throw Failure(kNotPermitted, "cannot look with the rights of user " + identity.userName());
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
  if (!identity.canBeTaken()) {
    throw Failure(kNotPermitted,
                  fmt::format("the daemon works as user {}: run koductl as that user, "
                              "by sudo -u {}, or as root",
                              identity.userName(), identity.userName()));
  }
  const bool isRoot = geteuid() == 0;
  const bool isDone = chdir(identity.directory.c_str()) == 0 &&
                      (!isRoot || (setgroups(identity.groups.size(), identity.groups.data()) == 0 &&
                                   setgid(identity.gid) == 0 && setuid(identity.uid) == 0));
  if (!isDone) {
    throw Failure(kNotPermitted, fmt::format("cannot work as user {} in {}", identity.userName(),
                                             identity.directory));
  }
  ::umask(identity.umask);
}
