#include "shutdown.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>

#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"

namespace {

constexpr std::string_view kStopText = "stop koduCron... SIGTERM: ";

/// Writes the stop line without the heap, whose lock the interrupted step may hold.
void logStop(int sig) {
  std::array<char, kStopText.size() + 12> line{};
  char* const number = line.data() + kStopText.copy(line.data(), kStopText.size());
  const auto written = std::to_chars(number, line.data() + line.size(), sig);
  fileLog->writeInHandler(kLogNotice, std::string_view(line.data(), written.ptr));
}

}  // namespace

void HandlerQuit(int sig) {
  const int interruptedErrno = errno;  // the interrupted step may be about to look at it
  logStop(sig);
  die_kodu = 1;
  if (queueExecTask != nullptr) {
    queueExecTask->wakeAll();
  }
  errno = interruptedErrno;
}
