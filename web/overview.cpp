#include "web/overview.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <vector>

#include "ctl/session/session.h"
#include "ctl/terminal/text.h"

namespace {

constexpr long kQuarter = 900, kQuarters = 96;  // of an hour, in seconds; of a day

// In groups first: a column that is used in several filters would be computed as often.
constexpr const char* kCounts = R"(
SELECT late, failing, running, paused, deleting, busy, program, quarter, count(*),
       floor(date_part('epoch', now()))::bigint
FROM (SELECT late, failing, running, paused, deleting, busy,
             CASE WHEN failing THEN program END AS program,
             CASE WHEN NOT paused AND NOT deleting AND NOT running
                       AND due >= now() AT TIME ZONE 'UTC'
                       AND due < now() AT TIME ZONE 'UTC' + interval '1 day'
                  THEN floor(date_part('epoch', due) / 900)::bigint END AS quarter
      FROM kodu_task_state) AS task
GROUP BY late, failing, running, paused, deleting, busy, program, quarter)";

constexpr const char* kDay = R"(
SELECT floor(date_part('epoch', slot))::bigint AS at,
       sum(rows) FILTER (WHERE outcome <> 'skipped') AS runs,
       sum(rows) FILTER (WHERE outcome = 'failed') AS failures,
       max(max_lateness) FILTER (WHERE outcome <> 'skipped') AS late
FROM generate_series(date_trunc('hour', now() AT TIME ZONE 'UTC') - interval '23 hours',
                     date_trunc('hour', now() AT TIME ZONE 'UTC'), interval '1 hour') AS slot
LEFT JOIN kodu_plugin_hour ON hour = slot
GROUP BY slot ORDER BY slot)";

/// Sums of the groups.
struct Sums {
  std::map<std::string, long> totals = {{"tasks", 0},   {"late", 0},   {"failing", 0},
                                        {"running", 0}, {"paused", 0}, {"deleting", 0}};
  std::map<std::string, long> failures;
  std::map<long, long> quarters;
  long busy = 0;
  long now = 0;

  void take(Fields& fields) {
    std::vector<const char*> counted = {"tasks"};
    for (const char* name : {"late", "failing", "running", "paused", "deleting"}) {
      if (fields.isTrue()) {
        counted.push_back(name);
      }
    }
    const bool isBusy = fields.isTrue();
    const auto program = fields.optionalText();
    const auto quarter = fields.optionalNumber();
    const long count = fields.number();
    now = fields.number();
    for (const char* name : counted) {
      totals[name] += count;
    }
    busy += isBusy ? count : 0;
    if (program) {
      failures[*program] += count;
    }
    if (quarter) {
      quarters[*quarter] += count;
    }
  }
};

Json::Value failuresOf(const Sums& sums) {
  constexpr std::size_t kMost = 10;
  std::vector<std::pair<std::string, long>> plugins(sums.failures.begin(), sums.failures.end());
  std::ranges::stable_sort(plugins, std::greater(), &std::pair<std::string, long>::second);
  plugins.resize(std::min(plugins.size(), kMost));
  Json::Value list(Json::arrayValue);
  for (const auto& [plugin, failing] : plugins) {
    Json::Value entry;
    entry["plugin"] = plugin;
    entry["failing"] = Json::Int64{failing};
    list.append(entry);
  }
  return list;
}

Json::Value dueOf(const Sums& sums) {
  Json::Value list(Json::arrayValue);
  for (long quarter = sums.now / kQuarter, n = 0; n < kQuarters; ++n, ++quarter) {
    const auto found = sums.quarters.find(quarter);
    Json::Value entry;
    entry["at"] = jsonTime(quarter * kQuarter);
    entry["tasks"] = Json::Int64{found == sums.quarters.end() ? 0 : found->second};
    list.append(entry);
  }
  return list;
}

}  // namespace

TaskCounts readTaskCounts(Session& session) {
  Sums sums;
  session.forEachRow(kCounts, {}, [&](Fields& fields) { sums.take(fields); });
  if (sums.now == 0) {  // without a task there is no group
    sums.now =
        session.query("SELECT floor(date_part('epoch', now()))::bigint AS now").number(0, "now");
  }
  TaskCounts counts;
  for (const auto& [name, count] : sums.totals) {
    counts.totals[name] = Json::Int64{count};
  }
  counts.failures = failuresOf(sums);
  counts.due = dueOf(sums);
  counts.late = sums.totals.at("late");
  counts.busy = sums.busy;
  counts.now = sums.now;
  return counts;
}

Json::Value readDay(Session& session) {
  const Rows rows = session.query(kDay);
  Json::Value list(Json::arrayValue);
  for (int row = 0; row < rows.count(); ++row) {
    const bool isKnown = !rows.isNull(row, "runs");
    Json::Value entry;
    entry["at"] = jsonTime(rows.number(row, "at"));
    entry["runs"] = jsonNumber(rows.optionalNumber(row, "runs"));
    entry["failures"] =
        isKnown ? Json::Value(Json::Int64{rows.number(row, "failures")}) : Json::Value();
    entry["late_max_seconds"] =
        rows.isNull(row, "late") ? Json::Value() : Json::Value(std::stod(rows.text(row, "late")));
    list.append(entry);
  }
  return list;
}
