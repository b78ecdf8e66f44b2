// The daemon's parts, in memory or on this machine's file system:
//   pushAndPop/N        one task taken off a schedule queue of N tasks and put back an hour later
//   setParameter        one parameter string of six arguments split
//   updateDefinition    one record that takes over another's definition
//   repairOutput/BYTES  the UTF-8 check of a valid output
//   fillPlaceholders    the name of a failed run's copy
//   localTime/SECONDS   the local time of a run: in the second of the last look at the zone (0), or
//                       in another one (1), with a look
//   logLine/LEVEL       one line of the log: below its threshold (0), written (2)
//   runPlugin           one run of a static plugin that prints a line

#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "core/localTime.h"
#include "core/logFile.h"
#include "sched/outputPath.h"
#include "sched/pluginOutput.h"
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
BENCHMARK(pushAndPop)->Arg(1000)->Arg(10'000)->Arg(100'000)->Arg(1'000'000);

void setParameter(benchmark::State& state) {
  serviceCron task;
  while (state.KeepRunning()) {
    task.Setparameter(kParameter);
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

void repairOutput(benchmark::State& state) {
  std::string output(static_cast<std::size_t>(state.range(0)), 'x');
  while (state.KeepRunning()) {
    repairUtf8(output);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(repairOutput)->Arg(1 << 10)->Arg(1 << 20);

void fillPlaceholders(benchmark::State& state) {
  const auto task = std::make_shared<serviceCron>();
  task->SetService_id(123456ULL);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(replaceParameter("out_$SERVICEID_$DATE.txt", task));
  }
}
BENCHMARK(fillPlaceholders);

void localTime(benchmark::State& state) {
  std::time_t now = 1'714'568'529;
  while (state.KeepRunning()) {
    now += state.range(0);
    benchmark::DoNotOptimize(calendarTime(now + utcOffset(now)));
  }
}
BENCHMARK(localTime)->Arg(0)->Arg(1);

void logLine(benchmark::State& state) {
  const std::string path = std::filesystem::temp_directory_path() / "koducron-partsBench.log";
  {
    logFile log(2, path);
    while (state.KeepRunning()) {
      log.write(static_cast<char>(state.range(0)), "TH TIME: Send task to execution task");
    }
  }
  std::filesystem::remove(path);
}
BENCHMARK(logLine)->Arg(0)->Arg(2);

void runPlugin(benchmark::State& state) {
  serviceCron task;
  task.Setpath(KODU_BENCH_PLUGIN);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(task.execute());
  }
}
BENCHMARK(runPlugin)->UseRealTime();

}  // namespace
