#include "ctl/metrics/reading.h"

#include <charconv>

#include "ctl/failure.h"
#include "ctl/session/session.h"

namespace {

constexpr const char* kCounters =
    "SELECT host, name, label, value FROM kodu_metric_count ORDER BY name, host, place";

double seconds(std::chrono::system_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

std::optional<double> optionalReal(const Rows& rows, int row, const char* column) {
  const auto text = rows.optionalText(row, column);
  if (!text) {
    return std::nullopt;
  }
  double value = 0;
  const char* end = text->data() + text->size();
  const auto parsed = std::from_chars(text->data(), end, value);
  return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(value) : std::nullopt;
}

double real(const Rows& rows, int row, const char* column) {
  return optionalReal(rows, row, column).value_or(0);
}

DaemonFigures readDaemon(Session& session) {
  const Rows row = session.query("SELECT * FROM kodu_metric_daemon");
  DaemonFigures figures;
  figures.daemons = row.number(0, "daemons");
  figures.queueShare = real(row, 0, "queue");
  figures.uncounted = real(row, 0, "uncounted");
  figures.isLedgerOn = row.isTrue(0, "ledger_is_on");
  figures.prunedAt = optionalReal(row, 0, "pruned_at");
  figures.schemaVersion = row.number(0, "version");
  return figures;
}

std::vector<TaskSeries> readFailing(Session& session) {
  const Rows rows = session.query("SELECT * FROM kodu_metric_failing ORDER BY since, id");
  std::vector<TaskSeries> tasks;
  for (int row = 0; row < rows.count(); ++row) {
    TaskSeries task{rows.text(row, "id"), rows.text(row, "name"), false, {}, {}, {}, {}};
    task.since = optionalReal(rows, row, "since");
    tasks.push_back(task);
  }
  return tasks;
}

std::vector<TaskSeries> readMarked(Session& session) {
  const Rows rows = session.query("SELECT * FROM kodu_metric_marked ORDER BY id");
  std::vector<TaskSeries> tasks;
  for (int row = 0; row < rows.count(); ++row) {
    TaskSeries task{
        rows.text(row, "id"), rows.text(row, "name"), rows.isTrue(row, "is_ok"), {}, {}, {}, {}};
    task.ended = optionalReal(rows, row, "ended");
    task.seconds = optionalReal(rows, row, "seconds");
    task.dueTime = optionalReal(rows, row, "due");
    tasks.push_back(task);
  }
  return tasks;
}

}  // namespace

bool collectCounters(Session& session) {
  constexpr const char* kNoFunction = "42883";
  try {
    return session.query("SELECT kodu_metric_collect() AS is_done").isTrue(0, "is_done");
  } catch (const Failure& e) {
    if (e.sqlState != kNoFunction) {
      throw;
    }
    throw Failure(kRefused,
                  "the database has no metrics: run koductl --user OWNER schema upgrade, or load "
                  "sql/metrics.sql as the owner of the tables",
                  e.sqlState);
  }
}

MetricsReading readMetrics(Session& session) {
  const auto begin = std::chrono::steady_clock::now();
  MetricsReading reading;
  const Rows rows = session.query(kCounters);
  for (int row = 0; row < rows.count(); ++row) {
    reading.counters.push_back({rows.text(row, "host"), rows.text(row, "name"),
                                rows.text(row, "label"), real(rows, row, "value")});
  }
  reading.daemon = readDaemon(session);
  reading.isDatabaseUp = true;
  reading.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return reading;
}

TaskFigures readTasks(Session& session) {
  TaskFigures figures;
  figures.readAt = seconds(std::chrono::system_clock::now().time_since_epoch());
  const Rows row = session.query("SELECT * FROM kodu_metric_tasks");
  for (std::size_t state = 0; state < kTaskStates.size(); ++state) {
    figures.states.at(state) = row.number(0, kTaskStates.at(state));
  }
  figures.overdue = row.number(0, "overdue");
  figures.oldestOverdue = row.number(0, "oldest_overdue");
  figures.longestRun = row.number(0, "longest_run");
  figures.failing = row.number(0, "failing");
  figures.unwritten = row.number(0, "unwritten");
  figures.failingTasks = readFailing(session);
  figures.markedTasks = readMarked(session);
  return figures;
}
