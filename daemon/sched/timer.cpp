#include "sched/timer.h"

#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "core/constants.h"
#include "core/globals.h"
#include "core/localTime.h"
#include "core/logFile.h"
#include "core/signals.h"
#include "task/CronTaskQueue.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"

namespace {

/// Takes the earliest task out of the queue when its time has passed; null when it has not.
std::shared_ptr<serviceCron> takeDueTask() {
  if (serviceQueue->empty()) {
    return nullptr;
  }
  const std::time_t now = std::time(nullptr);
  if (now <= serviceQueue->front()->GetExecTimeSec()) {
    return nullptr;
  }
  // The result of pop, not of front: a worker may have pushed an earlier task in between. Handing
  // over the result of front would queue that task twice and lose the other.
  return serviceQueue->pop();
}

}  // namespace

void th_readPqeue() {
  installEmptySignalMask();
  while (die_kodu == 0) {
    followZone();  // for HandlerQuit's line, in a daemon that writes no other
    const std::shared_ptr<serviceCron> task = takeDueTask();
    if (task == nullptr) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      continue;
    }
    fileLog->write(kLogDebug, [&] { return "TH TIME: Send task to execution " + task->Getname(); });
    queueExecTask->push(task);
  }
}
