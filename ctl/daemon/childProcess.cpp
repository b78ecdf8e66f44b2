#include "ctl/daemon/childProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

/// The descriptors of the program.
class Redirections {
 public:
  Redirections(int input, int output, bool withErrors) {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (!withErrors) {
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
  }
  ~Redirections() { posix_spawn_file_actions_destroy(&actions); }
  Redirections(const Redirections&) = delete;
  Redirections& operator=(const Redirections&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions; }

 private:
  posix_spawn_file_actions_t actions{};
};

/// A descriptor from which `text` can be read; -1 when there is no memory. Not a pipe: writing
/// never waits for the program.
int fileWith(const std::string& text) {
  const int file = memfd_create("input", MFD_CLOEXEC);
  for (std::size_t at = 0; file >= 0 && at < text.size();) {
    const ssize_t length = write(file, text.data() + at, text.size() - at);
    if (length <= 0) {
      break;
    }
    at += static_cast<std::size_t>(length);
  }
  lseek(file, 0, SEEK_SET);
  return file;
}

/// To the end of the file, or to a signal.
std::string readAll(int file) {
  std::string text;
  std::array<char, 4096> part{};
  for (ssize_t count = 0; (count = read(file, part.data(), part.size())) > 0;) {
    text.append(part.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildResult runProgram(const std::vector<std::string>& arguments, const std::string& input,
                       bool withErrors) {
  std::vector<std::string> words = arguments;
  const std::vector<char*> pointers = pointersTo(words);
  std::array<char*, 1> environment = {nullptr};
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    return {};
  }
  const int source = fileWith(input);
  pid_t child = 0;
  const int error =
      posix_spawn(&child, pointers.front(), Redirections(source, ends[1], withErrors).get(),
                  nullptr, pointers.data(), environment.data());
  close(ends[1]);
  close(source);
  ChildResult result;
  result.output = error == 0 ? readAll(ends[0]) : "";
  close(ends[0]);
  int status = -1;
  while (error == 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = error == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}
