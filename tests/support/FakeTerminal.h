#pragma once

#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/outputOf.h"

/// Makes a terminal the standard output of this process during its lifetime, without colours unless
/// the test sets TERM and NO_COLOR.
class FakeTerminal {
 public:
  FakeTerminal(unsigned short rows, unsigned short columns) {
    const winsize size{rows, columns, 0, 0};
    int end = -1;
    if (openpty(&screen, &end, nullptr, nullptr, &size) != 0) {
      throw std::runtime_error("cannot open a terminal");
    }
    redirected = std::make_unique<Redirected>(STDOUT_FILENO, end);
    close(end);
  }
  ~FakeTerminal() {
    redirected.reset();
    close(screen);
  }
  FakeTerminal(const FakeTerminal&) = delete;
  FakeTerminal& operator=(const FakeTerminal&) = delete;

  /// What has been printed since the last call, with "\r\n" at the end of each line. Waits for the
  /// first byte.
  std::string read() const {
    std::fflush(stdout);
    std::array<char, 4096> chunk{};
    const ssize_t length = ::read(screen, chunk.data(), chunk.size());
    return {chunk.data(), static_cast<std::size_t>(length < 0 ? 0 : length)};
  }

 private:
  int screen = -1;
  std::unique_ptr<Redirected> redirected;
};
