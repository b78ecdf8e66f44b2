// The task room, in memory only:
//   pushAndPop/N       one task taken off a schedule queue of N tasks and put back an hour later
//   setParameter       one parameter string of six arguments split
//   updateDefinition   one record that takes over another's definition

#include <memory>

#include <benchmark/benchmark.h>

#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"

namespace {

constexpr const char* kParameter = "-H 192.0.2.10 -p 5432 -m \"two words\"";

void pushAndPop(benchmark::State& state) {
  CronTaskQueue queue;
  for (long i = 0; i < state.range(0); ++i) {
    auto task = std::make_shared<serviceCron>();
    task->SetExecTime(i * 7919 % 3600);  // spread over an hour, in no order
    queue.push(task);
  }
  while (state.KeepRunning()) {
    auto task = queue.pop();
    task->SetExecTime(task->GetExecTimeSec() + 3600);
    queue.push(std::move(task));
  }
}
BENCHMARK(pushAndPop)->Arg(100)->Arg(10'000)->Arg(100'000);

void setParameter(benchmark::State& state) {
  serviceCron task;
  while (state.KeepRunning()) {
    task.Setparameter(kParameter);
    benchmark::DoNotOptimize(task.GetVectorParam());
  }
}
BENCHMARK(setParameter);

void updateDefinition(benchmark::State& state) {
  serviceCron known;
  serviceCron changed;
  changed.Setname("a task's name");
  changed.Setparameter(kParameter);
  changed.Setinterval_exec_time(300);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(known.updateServiceParameter(changed));
  }
}
BENCHMARK(updateDefinition);

}  // namespace
