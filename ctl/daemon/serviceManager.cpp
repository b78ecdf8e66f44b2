#include "ctl/daemon/serviceManager.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";

/// The descriptors of systemctl: its standard output is the pipe, the others are /dev/null.
class Redirections {
 public:
  explicit Redirections(int output) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  ~Redirections() { posix_spawn_file_actions_destroy(&actions); }
  Redirections(const Redirections&) = delete;
  Redirections& operator=(const Redirections&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions; }

 private:
  posix_spawn_file_actions_t actions{};
};

std::string readAll(int file) {
  std::string text;
  std::array<char, 64> part{};
  for (ssize_t count = 0; (count = read(file, part.data(), part.size())) > 0;) {
    text.append(part.data(), static_cast<std::size_t>(count));
  }
  return text;
}

/// What systemctl prints; "" when it fails.
std::string askSystemctl() {
  std::array<const char*, 6> arguments = {
      kSystemctl, "show", "--property=MainPID", "--value", "koducron.service", nullptr};
  // The caller's environment must not decide which service manager systemctl asks.
  std::array<char*, 1> environment = {nullptr};
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    return "";
  }
  pid_t child = 0;
  const int error = posix_spawn(&child, kSystemctl, Redirections(ends[1]).get(), nullptr,
                                const_cast<char* const*>(arguments.data()), environment.data());
  close(ends[1]);
  const std::string text = readAll(ends[0]);
  close(ends[0]);
  int status = 1;
  const bool isDone = error == 0 && waitpid(child, &status, 0) == child && status == 0;
  return isDone ? text : "";
}

}  // namespace

std::optional<pid_t> daemonOfServiceManager() {
  std::error_code error;
  if (!std::filesystem::is_directory("/run/systemd/system", error)) {
    return std::nullopt;
  }
  const std::string text = askSystemctl();
  pid_t process = 0;
  std::from_chars(text.data(), text.data() + text.size(), process);
  return process > 0 ? std::optional(process) : std::nullopt;
}
