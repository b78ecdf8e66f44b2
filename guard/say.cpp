#include "guard/say.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "guard/system.h"

namespace {

/// True when a write that failed with `error` is worth another try, after having waited for it.
bool canGoOn(int error) {
  if (error == EAGAIN) {  // whoever made the pipe may have made it without waiting
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

}  // namespace

Digits::Digits(long number)
    : length(static_cast<std::size_t>(std::to_chars(text.begin(), text.end(), number).ptr -
                                      text.begin())) {}

void say(std::initializer_list<std::string_view> pieces) {
  for (const std::string_view piece : pieces) {
    write(piece);
  }
}
