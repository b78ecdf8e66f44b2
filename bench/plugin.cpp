// The cheapest plugin: static, one line, no library to load.

#include <unistd.h>

int main() {
  constexpr char kLine[] = "OK - fine\n";
  return write(STDOUT_FILENO, kLine, sizeof kLine - 1) == sizeof kLine - 1 ? 0 : 2;
}
