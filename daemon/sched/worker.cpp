#include "sched/worker.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/Descriptor.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "core/signals.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "sched/copyFile.h"
#include "sched/nextTime.h"
#include "sched/outputPath.h"
#include "task/CronTaskQueue.h"
#include "task/EmptyQueueException.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"
#include "task/serviceSafeException.h"

namespace {

using TaskPtr = std::shared_ptr<serviceCron>;

constexpr int kAttempts = 3;
constexpr int kCritical = 2;

void markAsRunning(const TaskPtr& task, std::vector<std::string>& parameters) {
  parameters.push_back(task->GetService_idStr());
  PQclear(pgSQL->executePrepareRequest("UpdateCronProcess", parameters));
  fileLog->write(kLogDebug, [&] { return "TH EXEC: crontask exec " + task->Getname(); });
}

/// Runs the plugin, again after a second when it could not be run; CRITICAL when it never could.
int runPlugin(const TaskPtr& task) {
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    try {
      const int code = task->execute();
      fileLog->write(kLogDebug,
                     [&] { return "TH EXEC: crontask exec SUCCESS " + task->Getname(); });
      return code;
    } catch (const serviceSafeException& e) {
      fileLog->write(kLogError, "TH EXEC: Excute failed retry" + task->Getname() + " " +
                                    std::to_string(task->GetService_id()) + " " + e.what());
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
  return kCritical;
}

/// Writes a line to standard output, under a lock of its own: lines of two workers do not mix.
void printLine(std::string_view label, std::string_view text) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  // The stream's buffer, not the stream: one failed write, for example on a full disk, would
  // silence std::cout forever. Tested by WorkerTest.PrintsALineAfterOneThatFailed.
  std::streambuf& console = *std::cout.rdbuf();
  for (const std::string_view part : {label, text, std::string_view("\n")}) {
    console.sputn(part.data(), static_cast<std::streamsize>(part.size()));
  }
  console.pubsync();
}

void printRun(int code, const std::string& output) {
  printLine("return", std::to_string(code));
  printLine("output", output);
}

void writeOutputFile(const std::string& path, const TaskPtr& task) {
  // No O_TRUNC: readers never find the file empty, and the end of a longer earlier output remains
  // after a shorter one. Tested by WorkerTest.LeavesTheTailOfALongerOutput.
  {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!file.isOpen()) {
      throw serviceSafeException(std::strerror(errno));
    }
    const std::string& output = task->unlockedStdout();
    flock(file.get(), LOCK_EX);
    [[maybe_unused]] const auto written = write(file.get(), output.data(), output.size());
    flock(file.get(), LOCK_UN);
  }
  task->clearOutput();
  // Frees the storage as well; otherwise every task would keep that of its largest output. In a
  // separate step under the lock, because an update that replaces the task may be copying the
  // output.
  task->SetStdout({});
}

/// Keeps a copy of the failed run's output and a row that names it.
void archiveFailure(const TaskPtr& task, const std::string& outputPath) {
  fileLog->write(kLogDebug, [&] { return "TH EXEC: FAILED EXEC STATE: " + task->Getname(); });
  const std::string archiveName = replaceParameter(task->GetFilename(), task);
  const std::string directory = archiveDirectory(log_directory, task->GetService_idStr());
  if (!std::filesystem::exists(std::filesystem::status(directory))) {
    std::filesystem::create_directories(directory);
  }
  // An existing copy is the only trace of a failed run and is never overwritten, even though the
  // process ends here. Tested by WorkerCrashTest.EndsTheProcessWhenTheArchiveFileExists.
  copyToNewFile(outputPath, directory + archiveName);
  PQclear(pgSQL->executePrepareRequest("insertCronError", {task->GetService_idStr(), archiveName}));
}

/// Sets the time of the next retry, in memory only, counted from this run's due time. False when
/// the retries are spent.
bool scheduleRetry(const TaskPtr& task) {
  const int retry = task->GetRetrie() + 1;
  if (retry > task->GetMaxRetrie()) {
    return false;
  }
  fileLog->write(kLogDebug,
                 [&] { return "TH EXEC: TASK FAILED RETRIES: " + std::to_string(retry); });
  task->SetRetrie(retry);
  const long retryTime = task->GetExecTimeSec() + task->GetRetrieTime();
  task->SetExecTime(retryTime);
  fileLog->write(kLogDebug, [&] {
    return "TH EXEC: TASK FAILED RETRIES NEXT EXEC: " + std::to_string(retryTime);
  });
  return true;
}

/// Writes the run's final state and takes over the next time that the database gives.
void completeRun(const TaskPtr& task, const std::string& state,
                 std::vector<std::string>& parameters) {
  task->SetRetrie(0);
  fileLog->write(kLogDebug,
                 [&] { return "TH EXEC: UPDATE TASK STATE: " + state + " " + task->Getname(); });
  parameters.push_back(state);
  const ResultPtr result(pgSQL->executePrepareRequest("UpdateCronState", parameters));
  const std::string nextExec = cellText(result, 0, 0, "UpdateCronState");
  fileLog->write(kLogDebug, [&] { return "change time exec: " + nextExec; });
  task->SetExecTime(static_cast<long>(
      getNextTimeToExec(nextExec, task->Getinterval_exec_time(), task->GetService_idStr())));
}

/// One pass: everything from a task taken off the execution queue to the task put back.
void processTask(const TaskPtr& task, std::vector<std::string>& parameters) {
  if (task->GetExecState() == kRecordDropped) {
    return;
  }
  markAsRunning(task, parameters);
  const int code = runPlugin(task);
  printRun(code, task->unlockedStdout());
  const std::string outputPath = currentOutputPath(log_directory, task);
  writeOutputFile(outputPath, task);
  bool isRetryPending = false;
  if (code != 0) {
    archiveFailure(task, outputPath);
    isRetryPending = scheduleRetry(task);
  }
  if (!isRetryPending) {
    completeRun(task, code == 0 ? "OK" : "FAILED", parameters);
  }
  parameters.clear();
  // Otherwise a task that was replaced just before its run would run beside the new one from now
  // on, and a purged one would find no row. Tested by
  // WorkerTest.KeepsAMarkThatComesJustBeforeTheRun.
  task->restoreDrop();
  serviceQueue->push(task);
}

}  // namespace

void th_executeCronTaks(int number) {
  installEmptySignalMask();
  const std::string workerNumber = std::to_string(number);
  std::vector<std::string> parameters;
  while (die_kodu == 0) {
    try {
      queueExecTask->waitForTask(die_kodu);
      fileLog->write(kLogDebug, [&] { return "TH EXEC wake up " + workerNumber; });
      if (die_kodu == 0) {
        processTask(queueExecTask->pop(), parameters);
      }
    } catch (const EmptyQueueException&) {
      // Another worker was faster.
    } catch (const serviceSafeException& e) {
      // The task is not put back and `parameters` is not emptied: without a usable output directory
      // the daemon must not continue, and the next statement, which gets too many parameters, ends
      // the process. Tested by WorkerCrashTest.EndsTheProcessAtTheTaskAfterAnAbandonedPass.
      fileLog->write(kLogCritical, e.what());
    }
  }
  fileLog->write(kLogDebug, "TH EXEC END");
}
