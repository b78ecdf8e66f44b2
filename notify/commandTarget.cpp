// Runs the command of the configuration for an event. No shell is involved: the arguments come from
// the template, and the event's fields cannot become further ones.

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string_view>

#include "notify/fill.h"
#include "notify/target.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Closes a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int owned) : number(owned) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number; }
  void close() {
    if (number >= 0) {
      ::close(number);
    }
    number = -1;
  }

 private:
  int number;
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

/// A path for programs, and each field as KODU_NAME.
std::vector<std::string> environmentOf(const Event& event) {
  std::vector<std::string> variables = {
      "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"};
  for (const std::string& name : placeholders()) {
    std::string variable = "KODU_";
    for (const char letter : name) {
      variable += static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    }
    variables.push_back(variable + "=" + event.field(name));
  }
  return variables;
}

/// Between fork and execve: calls only what is safe there.
[[noreturn]] void becomeCommand(int input, char* const* arguments, char* const* environment) {
  setpgid(0, 0);
  signal(SIGPIPE, SIG_DFL);
  dup2(input, STDIN_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);  // both go to the journal
  execve(arguments[0], arguments, environment);
  _exit(127);
}

class CommandTarget : public Target {
 public:
  explicit CommandTarget(const NotifyConfig& given) : config(given) {}

  std::string deliver(const std::vector<Event>& events) override {
    for (const Event& event : events) {
      if (std::string error = runFor(event); !error.empty()) {
        return error;
      }
    }
    return "";
  }

 private:
  std::string runFor(const Event& event) {
    std::vector<std::string> arguments;
    for (const std::string& argument : config.command) {
      arguments.push_back(filled(argument, event));
    }
    std::vector<std::string> variables = environmentOf(event);
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> variablePointers = pointersTo(variables);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      return fmt::format("cannot make a pipe: {}", std::strerror(errno));
    }
    Descriptor input(ends[0]);
    Descriptor output(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
      becomeCommand(input.get(), argumentPointers.data(), variablePointers.data());
    }
    if (pid < 0) {
      return fmt::format("cannot start a process: {}", std::strerror(errno));
    }
    setpgid(pid, pid);  // also here: one of both comes first
    input.close();
    const auto end = Clock::now() + config.timeout;
    write(output, event.text + "\n", end);
    return await(pid, end);
  }

  /// As much as the command reads until then.
  static void write(Descriptor& output, std::string_view text, Clock::time_point end) {
    fcntl(output.get(), F_SETFL, O_NONBLOCK);
    while (!text.empty() && Clock::now() < end) {
      pollfd writable{output.get(), POLLOUT, 0};
      poll(&writable, 1, remaining(end));
      const ssize_t count = ::write(output.get(), text.data(), text.size());
      if (count < 0 && errno != EAGAIN && errno != EINTR) {
        break;  // it does not read its input
      }
      text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    output.close();
  }

  static int remaining(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(left > 0 ? left : 0);
  }

  std::string await(pid_t pid, Clock::time_point end) const {
    // glibc 2.36 declares pidfd_open for C only.
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd ended{process.get(), POLLIN, 0};
    while (poll(&ended, 1, remaining(end)) < 0 && errno == EINTR) {
    }
    const bool isLate = (ended.revents & POLLIN) == 0;
    if (isLate && pid > 1) {
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);  // a sandbox may forbid a group of its own
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (isLate) {
      return fmt::format("{} did not end within {} s", config.command[0],
                         static_cast<double>(config.timeout.count()) / 1000);
    }
    if (WIFSIGNALED(status)) {
      return fmt::format("{} was ended by signal {}", config.command[0], WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? ""
                                    : fmt::format("{} ended with exit status {}", config.command[0],
                                                  WEXITSTATUS(status));
  }

  const NotifyConfig& config;
};

}  // namespace

std::unique_ptr<Target> makeCommandTarget(const NotifyConfig& config) {
  return std::make_unique<CommandTarget>(config);
}
