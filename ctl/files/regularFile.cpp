#include "ctl/files/regularFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "ctl/failure.h"

namespace {

/// A descriptor that is closed on destruction.
class Descriptor {
 public:
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() { close(number); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int number;
};

[[noreturn]] void refuse(const std::string& path, const std::string& reason, ExitCode code) {
  throw Failure(code, fmt::format("cannot read {}: {}", path, reason));
}

[[noreturn]] void refuseFor(int error, const std::string& path) {
  refuse(path, std::strerror(error), error == EACCES ? kNotPermitted : kNotFound);
}

void requireRegular(const std::string& path, const struct stat& status) {
  if (!S_ISREG(status.st_mode)) {
    refuse(path, waitingKind(status.st_mode).value_or("it is not a regular file"), kNotFound);
  }
}

}  // namespace

std::optional<std::string> waitingKind(mode_t mode) {
  if (S_ISFIFO(mode)) {
    return "it is a FIFO";
  }
  return S_ISSOCK(mode) ? std::optional<std::string>("it is a socket") : std::nullopt;
}

std::string readRegularFile(const std::string& path, std::size_t most) {
  // Checked before it is opened, because opening can have effects on a device. Checked again after
  // it is opened, because another file may have replaced it; O_NONBLOCK prevents waiting for that
  // one.
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    refuseFor(errno, path);
  }
  requireRegular(path, status);
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.number < 0 || fstat(file.number, &status) != 0) {
    refuseFor(errno, path);
  }
  requireRegular(path, status);
  std::string content;
  std::array<char, 65536> chunk{};
  ssize_t length = 1;
  while (length > 0 && content.size() < most) {
    length = read(file.number, chunk.data(), std::min(chunk.size(), most - content.size()));
    content.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  }
  return content;
}
