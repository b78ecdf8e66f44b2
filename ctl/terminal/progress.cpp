#include "ctl/terminal/progress.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "ctl/terminal/print.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

Progress::Progress(long total, std::string noun)
    : all(total),
      things(std::move(noun)),
      isShown(total > 0 && isatty(STDERR_FILENO) == 1 && hasSequences()) {
  advance(0);
}

Progress::~Progress() {
  if (isShown) {
    printError("\r\x1b[K");
  }
}

void Progress::advance(long count) {
  constexpr long kWidth = 30;
  done = std::min(all, done + count);
  if (isShown) {
    const auto filled = static_cast<std::size_t>(kWidth * done / all);
    printError("\r[{:<{}}] {}% of {} {}\x1b[K", std::string(filled, '#'), kWidth, 100 * done / all,
               grouped(all), things);
  }
}
