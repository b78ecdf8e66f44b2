// The cheapest plugin: static, one line, no library to load.

#include <unistd.h>

#include <string_view>

int main() {
  constexpr std::string_view kLine = "OK - fine\n";
  return write(STDOUT_FILENO, kLine.data(), kLine.size()) == static_cast<ssize_t>(kLine.size()) ? 0
                                                                                                : 2;
}
