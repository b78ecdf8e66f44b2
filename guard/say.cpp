#include "guard/say.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "common/plainText.h"
#include "guard/system.h"

namespace {

/// True when a write that failed with `error` is worth another try, after having waited for it.
bool canGoOn(int error) {
  if (error == EAGAIN) {  // the pipe may be non-blocking
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    kernel(SYS_ppoll, &output, 1, nullptr, nullptr, 0);
    return true;
  }
  return error == EINTR;
}

void write(std::string_view text) {
  while (!text.empty()) {
    const long written = kernel(SYS_write, STDOUT_FILENO, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (!canGoOn(static_cast<int>(-written))) {
      return;
    }
  }
}

/// The same for a terminal: a "?" replaces each character that can control it.
void writePrintable(std::string_view text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const Utf8Character next = firstUtf8Character(rest);
    rest.remove_prefix(next.bytes);
    const bool isLayout = next.code == '\n' || next.code == '\t';
    if (isUnsafe(next.code) && !isLayout) {
      write({text.data(), text.size() - rest.size() - next.bytes});
      write("?");
      text = rest;
    }
  }
  write(text);
}

bool isTerminal() {
  termios settings{};
  return kernel(SYS_ioctl, STDOUT_FILENO, TCGETS, &settings) == 0;
}

}  // namespace

Digits::Digits(long number)
    : length(static_cast<std::size_t>(std::to_chars(text.begin(), text.end(), number).ptr -
                                      text.begin())) {}

void say(std::initializer_list<std::string_view> pieces) {
  const bool isShown = isTerminal();
  for (const std::string_view piece : pieces) {
    isShown ? writePrintable(piece) : write(piece);
  }
}
