#include "admin/loaderRow.h"

#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "sched/nextTime.h"
#include "task/serviceCron.h"

std::string LoaderRow::text(Column column) const {
  return cellText(result, row, column, "the task query");
}

std::shared_ptr<serviceCron> LoaderRow::makeTask() const {
  auto task = std::make_shared<serviceCron>();
  task->SetService_id(static_cast<unsigned long long>(id()));
  const std::string name = text(kName);
  task->Setname(name);
  fileLog->write(kLogDebug, [&] { return "Load cron task: " + name; });
  task->Setpath(text(kPath));
  const auto interval = static_cast<unsigned int>(number(kInterval));
  task->Setinterval_exec_time(interval);
  task->Setparameter(text(kParameter));
  task->SetFilename(text(kLogFile));
  // SQL NULL leaves the record's own defaults.
  if (const std::string retries = text(kRetries); !retries.empty()) {
    task->SetMaxRetrie(std::stoi(retries));
  }
  if (const std::string seconds = text(kRetriesInterval); !seconds.empty()) {
    task->SetRetrieTime(std::stoi(seconds));
  }
  const std::string nextExec = text(kNextExec);
  task->SetExecTime(
      static_cast<long>(getNextTimeToExec(nextExec, interval, task->GetService_idStr())));
  fileLog->write(kLogDebug, [&] { return "ADD cron task: " + nextExec; });
  return task;
}
