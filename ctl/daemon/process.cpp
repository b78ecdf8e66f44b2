#include "ctl/daemon/process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

namespace fs = std::filesystem;

fs::path entryOf(pid_t process) {
  return fmt::format("/proc/{}", process);
}

std::optional<pid_t> numberOf(const fs::path& entry) {
  const std::string name = entry.filename();
  pid_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool isNumber = error == std::errc() && end == name.data() + name.size();
  return isNumber ? std::optional(number) : std::nullopt;
}

/// One line of /proc/PID/status.
void readField(std::istringstream& fields, ProcessStatus& status) {
  std::string name;
  fields >> name;
  if (name == "Umask:") {
    fields >> std::oct >> status.umask;
  } else if (name == "PPid:") {
    fields >> status.parent;
  } else if (name == "Uid:") {
    std::ranges::for_each(status.uids, [&](uid_t& id) { fields >> id; });
    status.isThere = true;
  } else if (name == "Gid:") {
    std::ranges::for_each(status.gids, [&](gid_t& id) { fields >> id; });
  } else if (name == "Groups:") {
    for (gid_t group = 0; fields >> group;) {
      status.groups.push_back(group);
    }
  }
}

/// Whether the descriptor of an entry of /proc/PID/fdinfo is open for writing.
bool isForWriting(const fs::path& information) {
  std::ifstream file(information);
  for (std::string name, value; file >> name >> value;) {
    if (name == "flags:") {
      return (std::stoi(value, nullptr, 8) & O_ACCMODE) != O_RDONLY;
    }
  }
  return false;
}

bool isSameFile(const struct stat& file, const fs::path& other) {
  struct stat status {};
  return stat(other.c_str(), &status) == 0 && status.st_dev == file.st_dev &&
         status.st_ino == file.st_ino;
}

}  // namespace

bool ProcessStatus::isOneUser() const {
  const auto isFirst = [](const auto& ids) {
    return std::ranges::all_of(ids, [&](auto id) { return id == ids.front(); });
  };
  return isFirst(uids) && isFirst(gids);
}

std::vector<pid_t> processes() {
  std::vector<pid_t> all;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    if (const auto process = numberOf(entry.path())) {
      all.push_back(*process);
    }
  }
  return all;
}

ProcessStatus statusOf(pid_t process) {
  ProcessStatus status;
  std::ifstream file(entryOf(process) / "status");
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    readField(fields, status);
  }
  return status;
}

std::vector<std::string> argumentsOf(pid_t process) {
  std::ifstream file(entryOf(process) / "cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  for (std::string argument; std::getline(file, argument, '\0');) {
    arguments.push_back(argument);
  }
  return arguments;
}

std::string directoryOf(pid_t process) {
  std::error_code error;
  const std::string directory = fs::read_symlink(entryOf(process) / "cwd", error);
  const std::string root = fs::read_symlink(entryOf(process) / "root", error);
  if (error) {
    return "/";
  }
  // A service manager's sandbox has a file system of its own. Seen from a container, its root is
  // the path that the container's has outside.
  const bool isOutside = root != "/" && directory.starts_with(root);
  return isOutside ? fs::path("/") / fs::path(directory.substr(root.size())).relative_path()
                   : fs::path(directory);
}

std::optional<long> startOf(pid_t process) {
  std::ifstream file(entryOf(process) / "stat");
  std::string line;
  std::getline(file, line);
  // The name of the program, in brackets, can hold anything: count the fields after it.
  std::istringstream fields(line.substr(std::min(line.rfind(')') + 1, line.size())));
  constexpr int kFieldsBefore = 19;  // the start is the 22nd of all
  std::string skipped;
  for (int i = 0; i < kFieldsBefore; ++i) {
    fields >> skipped;
  }
  long ticks = 0;
  timespec sinceBoot{};
  if (!(fields >> ticks) || clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0) {
    return std::nullopt;
  }
  return std::time(nullptr) - (sinceBoot.tv_sec - ticks / sysconf(_SC_CLK_TCK));
}

std::string executableOf(pid_t process) {
  std::error_code error;
  return fs::read_symlink(entryOf(process) / "exe", error).string();
}

bool isRunning(pid_t process, const fs::path& executable) {
  struct stat file {};
  // Compares the file itself: the link contains the path in the process's own file system.
  return (stat(executable.c_str(), &file) == 0 && isSameFile(file, entryOf(process) / "exe")) ||
         executableOf(process) == fmt::format("{} (deleted)", executable.string());
}

bool holdsForWriting(pid_t process, const fs::path& file) {
  struct stat wanted {};
  if (stat((fs::path(directoryOf(process)) / file).c_str(), &wanted) != 0) {
    return false;
  }
  const fs::path entry = entryOf(process);
  std::error_code error;
  const fs::directory_iterator descriptors(entry / "fd", error);
  return std::any_of(begin(descriptors), end(descriptors), [&](const auto& descriptor) {
    return isSameFile(wanted, descriptor.path()) &&
           isForWriting(entry / "fdinfo" / descriptor.path().filename());
  });
}
