#include "notify/stopSignal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

volatile std::sig_atomic_t isStopping = 0;
std::array<int, 2> ends{-1, -1};  // of a pipe that has a byte once the signal has come

void stop(int) {
  isStopping = 1;
  const int error = errno;
  [[maybe_unused]] const auto written = write(ends[1], "", 1);
  errno = error;
}

}  // namespace

StopSignal::StopSignal() {
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
  }
  struct sigaction action {};
  action.sa_handler = stop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

StopSignal::~StopSignal() {
  std::signal(SIGTERM, SIG_DFL);
  std::signal(SIGINT, SIG_DFL);
  close(ends[0]);
  close(ends[1]);
}

bool StopSignal::isSet() const {
  return isStopping != 0;
}

void StopSignal::wait(std::chrono::milliseconds time, int descriptor) const {
  std::array<pollfd, 2> watched{{{ends[0], POLLIN, 0}, {descriptor, POLLIN, 0}}};
  poll(watched.data(), watched.size(), static_cast<int>(time.count()));
}
