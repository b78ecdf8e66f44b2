#include "ctl/metrics/metricsText.h"

#include <map>

#include "ctl/metrics/reading.h"

namespace {

using Type = MetricType;

/// The values of one name and host, in order.
using Series = std::vector<std::pair<std::string, double>>;
using Counters = std::map<std::string, std::map<std::string, Series>>;

Counters grouped(const std::vector<CounterValue>& values) {
  Counters counters;
  for (const CounterValue& value : values) {
    counters[value.name][value.host].emplace_back(value.label, value.value);
  }
  return counters;
}

/// The labels of a series: of what no daemon did, without a host.
Labels hostLabels(const std::string& host) {
  return host.empty() ? Labels{} : Labels{{"host", host}};
}

Labels with(Labels labels, const std::string& name, const std::string& value) {
  labels.emplace_back(name, value);
  return labels;
}

void addCounters(MetricsPage& page, Counters& counters, const std::string& name,
                 const std::string& label) {
  for (const auto& [host, series] : counters[name]) {
    for (const auto& [value, count] : series) {
      page.add(label.empty() ? hostLabels(host) : with(hostLabels(host), label, value), count);
    }
  }
}

void addHistogram(MetricsPage& page, Counters& counters, const std::string& name) {
  for (const auto& [host, buckets] : counters[name]) {
    const Series& sum = counters[name + "_sum"][host];
    for (const auto& [bound, count] : buckets) {
      page.add("_bucket", with(hostLabels(host), "le", bound), count);
    }
    page.add("_sum", hostLabels(host), sum.empty() ? 0 : sum.front().second);
    page.add("_count", hostLabels(host), buckets.back().second);
  }
}

void addRuns(MetricsPage& page, const std::vector<CounterValue>& values) {
  Counters counters = grouped(values);
  page.begin(Type::kCounter, "koducron_daemon_lives",
             "Sessions of the daemon that wrote to the ledger.");
  addCounters(page, counters, "lives", "");
  page.begin(Type::kCounter, "koducron_runs", "Attempts to run a task, by outcome.");
  addCounters(page, counters, "runs", "outcome");
  page.begin(Type::kCounter, "koducron_skipped_periods", "Periods without a run, by reason.");
  addCounters(page, counters, "skipped", "reason");
  page.begin(Type::kHistogram, "koducron_run_duration_seconds",
             "Time from the start of an attempt to its end.");
  addHistogram(page, counters, "seconds");
  page.begin(Type::kHistogram, "koducron_run_lateness_seconds",
             "Time from when a run was due to its first start.");
  addHistogram(page, counters, "lateness");
}

void addDaemon(MetricsPage& page, const DaemonFigures& daemon) {
  page.single(Type::kGauge, "koducron_daemon_up", "Whether a daemon is connected to the database.",
              daemon.daemons > 0 ? 1 : 0);
  page.single(Type::kGauge, "koducron_daemon_sessions",
              "Daemons that are connected. Two daemons run each task twice.",
              static_cast<double>(daemon.daemons));
  page.single(Type::kGauge, "koducron_notification_queue_ratio",
              "Share of the notification queue in use. At 1 the daemon ends.", daemon.queueShare);
  page.single(Type::kGauge, "koducron_schema_version", "Version of the tables.",
              static_cast<double>(daemon.schemaVersion));
  page.single(Type::kGauge, "koducron_ledger_on", "Whether runs are recorded.",
              daemon.isLedgerOn ? 1 : 0);
  if (daemon.prunedAt) {
    page.single(Type::kGauge, "koducron_ledger_pruned_timestamp_seconds",
                "When the ledger was last pruned, or switched on.", *daemon.prunedAt);
  }
  page.single(Type::kGauge, "koducron_ledger_uncounted_transactions",
              "Transactions whose runs are not in the counters yet.", daemon.uncounted);
}

Labels taskLabels(const TaskSeries& task) {
  return {{"task_id", task.id}, {"task", task.name}};
}

/// One gauge of the tasks that have a value for it.
template <typename Value>
void addTaskGauge(MetricsPage& page, const std::vector<TaskSeries>& tasks, const std::string& name,
                  const std::string& help, const Value& valueOf) {
  page.begin(Type::kGauge, name, help);
  for (const TaskSeries& task : tasks) {
    if (const std::optional<double> value = valueOf(task)) {
      page.add(taskLabels(task), *value);
    }
  }
}

void addTaskSeries(MetricsPage& page, const TaskFigures& tasks) {
  addTaskGauge(page, tasks.failingTasks, "koducron_task_failing_since_timestamp_seconds",
               "Since when a task has been failing. At most 100 tasks, the longest first.",
               [](const TaskSeries& task) { return task.since; });
  addTaskGauge(page, tasks.markedTasks, "koducron_task_ok",
               "Whether the latest run of a marked task was OK.",
               [](const TaskSeries& task) { return std::optional(task.isOk ? 1.0 : 0.0); });
  addTaskGauge(page, tasks.markedTasks, "koducron_task_last_end_timestamp_seconds",
               "When the latest run of a marked task ended.",
               [](const TaskSeries& task) { return task.ended; });
  addTaskGauge(page, tasks.markedTasks, "koducron_task_last_duration_seconds",
               "How long the latest run of a marked task took.",
               [](const TaskSeries& task) { return task.seconds; });
  addTaskGauge(page, tasks.markedTasks, "koducron_task_due_timestamp_seconds",
               "Due time of a marked task's run in progress, or else of its next run.",
               [](const TaskSeries& task) { return task.dueTime; });
}

void addTasks(MetricsPage& page, const TaskFigures& tasks) {
  page.begin(Type::kGauge, "koducron_tasks", "Tasks by state. Each task is in one state.");
  for (std::size_t state = 0; state < kTaskStates.size(); ++state) {
    page.add({{"state", kTaskStates.at(state)}}, static_cast<double>(tasks.states.at(state)));
  }
  const auto gauge = [&](const char* name, const char* help, long value) {
    page.single(Type::kGauge, name, help, static_cast<double>(value));
  };
  gauge("koducron_tasks_failing", "Failing tasks, including those with a run in progress.",
        tasks.failing);
  gauge("koducron_tasks_overdue", "Tasks due for more than two seconds whose run has not begun.",
        tasks.overdue);
  gauge("koducron_oldest_overdue_seconds", "For how long the most overdue task has been due.",
        tasks.oldestOverdue);
  gauge("koducron_longest_run_seconds",
        "Time since the oldest run in progress was due, without runs that wait for a retry.",
        tasks.longestRun);
  gauge("koducron_ledger_unwritten_rows", "Rows of the ledger that could not be written.",
        tasks.unwritten);
  page.single(Type::kGauge, "koducron_tasks_read_timestamp_seconds",
              "When the figures of the tasks were read.", tasks.readAt);
  addTaskSeries(page, tasks);
}

}  // namespace

std::string metricsText(const MetricsReading& reading, MetricsFormat format,
                        const std::string& version) {
  MetricsPage page(format);
  page.begin(Type::kInfo, "koducron_build", "The program that answers.");
  page.add({{"version", version}}, 1);
  page.single(Type::kGauge, "koducron_database_up", "Whether the database answered in time.",
              reading.isDatabaseUp ? 1 : 0);
  page.single(Type::kGauge, "koducron_scrape_duration_seconds",
              "How long the answer of the database took.", reading.seconds);
  if (!reading.isDatabaseUp) {
    return page.text();
  }
  addDaemon(page, reading.daemon);
  if (reading.isCounted) {
    addRuns(page, reading.counters);
  }
  if (reading.tasks) {
    addTasks(page, *reading.tasks);
  }
  return page.text();
}
