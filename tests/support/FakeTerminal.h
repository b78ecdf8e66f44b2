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

/// Makes a terminal the standard output of this process during its lifetime.
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

  /// Everything that has been printed, with "\r\n" at the end of each line. Restores standard
  /// output.
  std::string finish() {
    redirected.reset();
    std::string text;
    std::array<char, 4096> chunk{};
    for (ssize_t length = 0; (length = read(screen, chunk.data(), chunk.size())) > 0;) {
      text.append(chunk.data(), static_cast<std::size_t>(length));
    }
    return text;
  }

 private:
  int screen = -1;
  std::unique_ptr<Redirected> redirected;
};
