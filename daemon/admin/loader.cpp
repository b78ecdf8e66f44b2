#include "admin/loader.h"

#include <malloc.h>

#include <exception>
#include <map>
#include <memory>
#include <mutex>

#include "admin/loaderRow.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"

namespace {

using TaskPtr = std::shared_ptr<serviceCron>;

constexpr int kManyRows = 1000;

void add(int id, const TaskPtr& task) {
  {
    // A task that is replaced here may be queued still, and then runs beside the new one: an
    // addition says that there was none. Tested by LoaderTest.ReplacesAKnownTaskAndLeavesItQueued.
    const std::lock_guard lock(mutexTaskMap);
    // The hint helps because rows usually come in the order of their ids.
    cronTaskMap.insert_or_assign(cronTaskMap.end(), id, task);
  }
  serviceQueue->push(task);
}

/// Puts `task` in the place of `known`, whose last result it keeps. Caller holds mutexTaskMap.
void replace(int id, const TaskPtr& known, const TaskPtr& task) {
  task->SetStdout(known->GetStdout());
  task->SetReturnCode(known->GetReturnCode());
  task->SetRetrie(known->GetRetrie());
  known->SetExecState(kRecordDropped);
  cronTaskMap.erase(id);
  cronTaskMap.insert({id, task});
  serviceQueue->push(task);
}

/// Replaces or updates the loaded task `id`; the address of the one that was replaced, or null.
const serviceCron* renew(int id, const TaskPtr& task) {
  // Held over the queue's push and the records' locks, so that the purge finds either the old task
  // or the new one. Tested by LoaderTest.LocksTheMapWhileItWaitsForTheRunOfAReplacedTask.
  const std::lock_guard lock(mutexTaskMap);
  const auto entry = cronTaskMap.find(id);
  if (entry == cronTaskMap.end()) {
    return nullptr;
  }
  const TaskPtr known = entry->second;
  if (known->isTimeParameterUpdate(*task)) {
    replace(id, known, task);
    return known.get();
  }
  known->updateServiceParameter(*task);
  return nullptr;
}

void update(int id, const TaskPtr& task) {
  if (const serviceCron* replaced = renew(id, task); replaced != nullptr) {
    serviceQueue->noteMarked(replaced);
  }
}

void enter(const std::string& mode, const LoaderRow& row) {
  const int id = row.id();
  const TaskPtr task = row.makeTask();
  if (mode == "ADD") {
    add(id, task);
  } else if (mode == "UPDATE") {
    update(id, task);
  }
}

}  // namespace

void load_cron_task(std::string mode, std::vector<int>* ids) {
  ResultPtr result(pgSQL->executeRequest(taskQuery(ids)));
  const int rows = PQntuples(result.get());
  for (int index = 0; index < rows; ++index) {
    const LoaderRow row(result, index);
    try {
      enter(mode, row);
    } catch (const std::exception& e) {
      // The retry interval's column, not the id's: readers of the log rely on this form of the
      // line. Tested by LoaderTest.NamesTheRetryIntervalOfARowThatFails.
      fileLog->write(kLogError,
                     "Failed to initial load service: " + row.retriesInterval() + e.what());
    }
  }
  result.reset();
  if (rows >= kManyRows) {
    // The rows have passed through the heap; that memory is not needed again. After a few rows this
    // would cost more than it gives: all threads' heap is locked while each of its gaps is visited.
    malloc_trim(0);
  }
  fileLog->write(kLogNotice, "script reload successful");
}
