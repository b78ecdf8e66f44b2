#include "admin/purge.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "sched/outputPath.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"

namespace {

/// Removes the task from the map and returns it; null when it is not loaded.
std::shared_ptr<serviceCron> takeFromMap(int id) {
  const std::lock_guard lock(mutexTaskMap);
  const auto entry = cronTaskMap.find(id);
  if (entry == cronTaskMap.end()) {
    return nullptr;
  }
  std::shared_ptr<serviceCron> task = entry->second;
  cronTaskMap.erase(entry);
  return task;
}

void purge(const std::string& id) {
  const int number = std::stoi(id);
  fileLog->write(kLogDebug, "DELETE TASK: " + id);
  if (auto task = takeFromMap(number); task != nullptr) {
    // The queues are not searched: the next thread that takes the task sees the mark. Tested by
    // DeleteTaskTest.LeavesTheQueuesAsTheyAre.
    task->SetExecState(kRecordDropped);
    std::filesystem::remove(currentOutputPath(log_directory, task));
    const serviceCron* const address = task.get();
    task.reset();
    serviceQueue->noteMarked(address);
  }
  std::filesystem::remove_all(archiveDirectory(log_directory, id));
  PQclear(pgSQL->executePrepareRequest("DeleteCronHistory", {id}));
  PQclear(pgSQL->executePrepareRequest("DeleteCron", {id}));
}

}  // namespace

void DeleteTask() {
  ResultPtr flagged(pgSQL->executePrepareRequest("SelectDeleteCron"));
  for (int row = 0; row < PQntuples(flagged.get()); ++row) {
    purge(cellText(flagged, row, 0, "SelectDeleteCron"));
  }
  flagged.reset();
  fileLog->write(kLogDebug, "DELETE END");
}
