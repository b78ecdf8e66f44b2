#include "admin/listener.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include <libpq-fe.h>

#include "admin/notificationBatch.h"
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

// The connection is polled under `wire` alone and for one call at a time, never under the
// statements' mutex, and nothing is held while a payload is logged, parsed or loaded.

void readFromServer() {
  const std::lock_guard wireLock(pgSQL->wire);
  PQconsumeInput(pgSQL->connection);
}

NotifyPtr nextNotification() {
  const std::lock_guard wireLock(pgSQL->wire);
  return NotifyPtr(PQnotifies(pgSQL->connection));
}

}  // namespace

void th_listener() {
  installEmptySignalMask();
  // The admin thread's words: the log has no start line of the listener's own.
  // ListenerTest.BeginsWithTheAdminThreadsLine holds this in place.
  fileLog->write(0, "TH ADMIN#START ");
  ResultPtr subscription(pgSQL->executeRequest(kListen));
  NotificationBatch batch;
  while (die_kodu == 0) {
    readFromServer();
    while (const NotifyPtr notify = nextNotification()) {
      batch.add(notify->extra);
    }
    batch.load();
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  subscription.reset();
}
