#include "ctl/terminal/print.h"

void printOutput(const std::string& bytes) {
  fmt::print(stdout, "{}", isTerminal() ? printable(bytes) : bytes);
}
