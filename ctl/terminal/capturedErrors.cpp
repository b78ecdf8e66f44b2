#include "ctl/terminal/capturedErrors.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>

CapturedErrors::CapturedErrors()
    : memory(memfd_create("errors", MFD_CLOEXEC)),
      terminal(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
  if (memory >= 0 && terminal >= 0) {
    dup2(memory, STDERR_FILENO);
  }
}

CapturedErrors::~CapturedErrors() {
  release();
  if (memory >= 0) {
    close(memory);
  }
}

void CapturedErrors::release() {
  if (terminal >= 0) {
    dup2(terminal, STDERR_FILENO);
    close(terminal);
    terminal = -1;
  }
}

std::string CapturedErrors::take() {
  release();
  std::string text;
  std::array<char, 4096> chunk{};
  ssize_t length = 0;
  while ((length = pread(memory, chunk.data(), chunk.size(), static_cast<off_t>(text.size()))) >
         0) {
    text.append(chunk.data(), static_cast<std::size_t>(length));
  }
  return text;
}
