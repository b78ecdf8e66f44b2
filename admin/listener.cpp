#include "admin/listener.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>
#include <libpq-fe.h>

#include "admin/loader.h"
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

/// Collects the ids that payloads name until they are handed to the loader.
class Batch {
 public:
  /// Adds the id that `payload` names, if it names one. Throws Json::LogicError for a value of the
  /// wrong type.
  void add(const std::string& payload) {
    fileLog->write(0, "TH LISTENER# Notify string receive :" + payload);
    Json::Value message;
    if (!reader->parse(payload.data(), payload.data() + payload.size(), &message, &errors)) {
      fileLog->write(3, "TH ADMIN# Bad notify Json receive :" + payload);
      return;
    }
    const std::string type = message["TYPE"].asString();
    const std::string command = message["COMMAND"].asString();
    fileLog->write(0, "TH LISTENER# Notify Json receive :" + payload);
    if (type != "SERVICE") {
      return;
    }
    if (command == "ADD") {
      added.push_back(message["ID"].asInt());
    } else if (command == "UPDATE") {
      updated.push_back(message["ID"].asInt());
    }
  }

  /// Hands the ids over, additions first, and forgets them.
  void load() {
    loadAndEmpty("ADD", added);
    loadAndEmpty("UPDATE", updated);
  }

 private:
  static void loadAndEmpty(const char* mode, std::vector<int>& ids) {
    if (!ids.empty()) {
      load_cron_task(mode, &ids);
      ids.clear();
    }
  }

  std::unique_ptr<Json::CharReader> reader{Json::CharReaderBuilder().newCharReader()};
  Json::String errors;
  std::vector<int> added;
  std::vector<int> updated;
};

}  // namespace

void th_listener() {
  installEmptySignalMask();
  // The admin thread's words: the log has no start line of the listener's own.
  fileLog->write(0, "TH ADMIN#START ");
  const ResultPtr subscription(pgSQL->executeRequest(kListen));
  Batch batch;
  while (die_kodu == 0) {
    readFromServer();
    while (const NotifyPtr notify = nextNotification()) {
      batch.add(notify->extra);
    }
    batch.load();
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}
