#include "admin/listener.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include <libpq-fe.h>

#include "admin/notificationBatch.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "core/signals.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"

namespace {

struct NotifyReleaser {
  void operator()(PGnotify* notify) const { PQfreemem(notify); }
};
using NotifyPtr = std::unique_ptr<PGnotify, NotifyReleaser>;

using Clock = std::chrono::steady_clock;

/// The turn inside libpq; not owned when another thread's statement has not given it up by `limit`.
// The connection is polled under `wire` alone and for one call at a time, never under the
// statements' mutex, and nothing is held while a payload is logged, parsed or loaded.
std::unique_lock<Turn> waitForWire(Clock::time_point limit) {
  return {pgSQL->wire, limit};
}

void readFromServer(Clock::time_point limit) {
  if (const auto wireLock = waitForWire(limit)) {
    PQconsumeInput(pgSQL->connection);
  }
}

NotifyPtr nextNotification(Clock::time_point limit) {
  const auto wireLock = waitForWire(limit);
  return NotifyPtr(wireLock ? PQnotifies(pgSQL->connection) : nullptr);
}

/// Takes what has come. A statement that hangs, waiting for a row's lock, puts that off to the next
/// step, and keeps the listener from the stop flag for a second in all.
/// Tested by ListenerTest.EndsWithinSecondsWhileAnotherThreadsStatementHangs.
void takeNotifications(NotificationBatch& batch) {
  const auto limit = Clock::now() + std::chrono::seconds(1);
  readFromServer(limit);
  while (const NotifyPtr notify = nextNotification(limit)) {
    batch.add(notify->extra);
  }
}

}  // namespace

void th_listener() {
  installEmptySignalMask();
  // The admin thread's words: the log has no start line of the listener's own.
  // Tested by ListenerTest.BeginsWithTheAdminThreadsLine.
  fileLog->write(kLogDebug, "TH ADMIN#START ");
  ResultPtr subscription(pgSQL->executeRequest(kListen));
  NotificationBatch batch;
  while (die_kodu == 0) {
    takeNotifications(batch);
    batch.load();
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  subscription.reset();
}
