#include "ctl/terminal/print.h"

#include <cerrno>

#include "ctl/terminal/printable.h"

void printOutput(const std::string& bytes) {
  fmt::print(stdout, "{}", isTerminal() ? printable(bytes) : bytes);
}

void flushOutput() {
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
}
