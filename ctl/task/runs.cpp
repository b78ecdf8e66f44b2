#include "ctl/task/runs.h"

#include <algorithm>

#include "ctl/session/session.h"
#include "ctl/terminal/text.h"

namespace {

void addRun(Json::Value& entry, const LedgerRow& row) {
  entry["due"] = jsonTime(row.due);
  entry["started_at"] = jsonTime(row.started);
  entry["seconds"] = row.seconds ? Json::Value(std::stod(*row.seconds)) : Json::Value();
  entry["outcome"] = row.outcome;
  entry["reason"] = row.reason.empty() ? Json::Value() : Json::Value(row.reason);
  entry["attempt"] = Json::Int64{row.attempt};
  entry["periods"] = Json::Int64{row.periods};
}

void addFailure(Json::Value& entry, const FailedRun& run, long number) {
  entry["number"] = Json::Int64{number};
  entry["failed_at"] = jsonTime(run.time);
  entry["archived_as"] = run.name;
  entry["path"] = run.path;
  entry["bytes"] = run.size ? Json::Value(Json::UInt64{*run.size}) : Json::Value();
}

}  // namespace

std::vector<RunEntry> mergeRuns(const std::vector<LedgerRow>& rows,
                                const std::vector<FailedRun>& failures, int limit) {
  std::vector<RunEntry> entries;
  std::vector<bool> isListed(failures.size());
  for (const LedgerRow& row : rows) {
    RunEntry entry{row, std::nullopt, 0};
    const auto place = static_cast<std::size_t>(row.failure.value_or(0));
    if (place > 0 && place <= failures.size()) {
      isListed[place - 1] = true;
      entry.failure = failures[place - 1];
      entry.number = *row.failure;
    }
    entries.push_back(entry);
  }
  for (std::size_t place = 0; place < failures.size(); ++place) {
    if (!isListed[place]) {
      entries.push_back({std::nullopt, failures[place], static_cast<long>(place) + 1});
    }
  }
  std::stable_sort(entries.begin(), entries.end(), [](const RunEntry& one, const RunEntry& other) {
    return one.time() > other.time();
  });
  if (entries.size() > static_cast<std::size_t>(limit)) {
    entries.resize(static_cast<std::size_t>(limit));
  }
  return entries;
}

Json::Value toJson(const std::vector<RunEntry>& entries) {
  Json::Value list(Json::arrayValue);
  for (const RunEntry& found : entries) {
    Json::Value entry;
    entry["ended_at"] = jsonTime(found.time());
    entry["outcome"] = "failed";
    if (found.row) {
      addRun(entry, *found.row);
    }
    if (found.failure) {
      addFailure(entry, *found.failure, found.number);
    }
    list.append(entry);
  }
  return list;
}

std::vector<long> readComingRuns(Session& session, int id, int count) {
  const Rows rows = session.query(
      "SELECT floor(EXTRACT(EPOCH FROM due))::bigint AS due"
      " FROM kodu_coming_runs($1::integer, $2::integer) AS due",
      {std::to_string(id), std::to_string(count)});
  std::vector<long> times;
  times.reserve(static_cast<std::size_t>(rows.count()));
  for (int row = 0; row < rows.count(); ++row) {
    times.push_back(rows.number(row, "due"));
  }
  return times;
}
