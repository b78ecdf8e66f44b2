#include "sched/timer.h"

#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "core/globals.h"
#include "core/localTime.h"
#include "core/logFile.h"
#include "core/signals.h"
#include "task/CronTaskQueue.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"

namespace {

/// The earliest task when its time has passed, else null. It stays in the queue.
std::shared_ptr<serviceCron> nextDueTask() {
  if (serviceQueue->empty()) {
    return nullptr;
  }
  const std::time_t now = std::time(nullptr);
  std::shared_ptr<serviceCron> task = serviceQueue->front();
  return now > task->GetExecTimeSec() ? task : nullptr;
}

}  // namespace

void th_readPqeue() {
  installEmptySignalMask();
  while (die_kodu == 0) {
    followZone();  // for HandlerQuit's line, in a daemon that writes no other
    const std::shared_ptr<serviceCron> task = nextDueTask();
    if (task == nullptr) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      continue;
    }
    fileLog->write(0, [&] { return "TH TIME: Send task to execution " + task->Getname(); });
    // What pop returns, not what front showed: a worker may have pushed an earlier task in
    // between, and handing over the one that was shown would queue it twice and lose the other.
    queueExecTask->push(serviceQueue->pop());
  }
}
