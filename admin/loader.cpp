#include "admin/loader.h"

#include <exception>
#include <map>
#include <memory>
#include <mutex>

#include "core/globals.h"
#include "core/logFile.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "sched/nextTime.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"

namespace {

using Task = std::shared_ptr<serviceCron>;

/// A row of the task query, read by column index.
class Row {
 public:
  Row(const ResultPtr& rows, int index) : result(rows), row(index) {}
  std::string text(int column) const { return cellText(result, row, column, "the task query"); }
  int number(int column) const { return std::stoi(text(column)); }

 private:
  const ResultPtr& result;
  int row;
};

enum Column {
  kId = 0,
  kName = 1,
  kInterval = 3,
  kNextExec = 6,
  kLogFile = 7,
  kRetries = 8,
  kRetriesInterval = 9,
  kPath = 10,
  kParameter = 11
};

/// The task that a row defines, its next time out of the past. Throws what the conversions, the
/// record and the catch-up throw.
Task taskFrom(const Row& row, int id) {
  auto task = std::make_shared<serviceCron>();
  task->SetService_id(static_cast<unsigned long long>(id));
  task->Setname(row.text(kName));
  fileLog->write(0, "Load cron task: " + task->Getname());
  task->Setpath(row.text(kPath));
  const auto interval = static_cast<unsigned int>(row.number(kInterval));
  task->Setinterval_exec_time(interval);
  task->Setparameter(row.text(kParameter));
  task->SetFilename(row.text(kLogFile));
  if (!row.text(kRetries).empty()) {
    task->SetMaxRetrie(row.number(kRetries));
  }
  if (!row.text(kRetriesInterval).empty()) {
    task->SetRetrieTime(row.number(kRetriesInterval));
  }
  const std::string nextExec = row.text(kNextExec);
  task->SetExecTime(
      static_cast<long>(getNextTimeToExec(nextExec, interval, task->GetService_idStr())));
  fileLog->write(0, "ADD cron task: " + nextExec);
  return task;
}

void add(int id, const Task& task) {
  {
    // A task that is replaced here may be queued still, and then runs beside the new one.
    const std::lock_guard lock(mutexTaskMap);
    cronTaskMap[id] = task;
  }
  serviceQueue->push(task);
}

/// Puts `task` in the place of `known`, whose last result it keeps. Caller holds mutexTaskMap.
void replace(int id, const Task& known, const Task& task) {
  task->SetStdout(known->GetStdout());
  task->SetReturnCode(known->GetReturnCode());
  task->SetRetrie(known->GetRetrie());
  known->SetExecState(3);
  cronTaskMap.erase(id);
  cronTaskMap.insert({id, task});
  serviceQueue->push(task);
}

void update(int id, const Task& task) {
  // Held over the queue's push and the records' locks, so that the purge finds either the old task
  // or the new one.
  const std::lock_guard lock(mutexTaskMap);
  const auto entry = cronTaskMap.find(id);
  if (entry == cronTaskMap.end()) {
    return;
  }
  const Task known = entry->second;
  if (known->isTimeParameterUpdate(*task)) {
    replace(id, known, task);
  } else {
    known->updateServiceParameter(*task);
  }
}

void enter(const std::string& mode, const Row& row) {
  const int id = row.number(kId);
  const Task task = taskFrom(row, id);
  if (mode == "ADD") {
    add(id, task);
  } else if (mode == "UPDATE") {
    update(id, task);
  }
}

}  // namespace

void load_cron_task(std::string mode, std::vector<int>* ids) {
  const ResultPtr result(pgSQL->executeRequest(taskQuery(ids)));
  for (int index = 0; index < PQntuples(result.get()); ++index) {
    const Row row(result, index);
    try {
      enter(mode, row);
    } catch (const std::exception& e) {
      // The retry interval's column, not the id's: those who read the log know the line so.
      // LoaderTest.NamesTheRetryIntervalOfARowThatFails holds this in place.
      fileLog->write(4, "Failed to initial load service: " + row.text(kRetriesInterval) + e.what());
    }
  }
  fileLog->write(2, "script reload successful");
}
