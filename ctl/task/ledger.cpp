#include "ctl/task/ledger.h"

#include <fmt/format.h>

#include <map>

#include "ctl/failure.h"
#include "ctl/session/session.h"

namespace {

constexpr const char* kHasLedger = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_run'), 'SELECT'), FALSE)
       AS has_ledger)";

// The history row of a failed attempt is written just before it ends.
constexpr const char* kRows = R"(
SELECT floor(EXTRACT(EPOCH FROM due))::bigint AS due,
       floor(EXTRACT(EPOCH FROM started))::bigint AS started,
       floor(EXTRACT(EPOCH FROM ended))::bigint AS ended,
       round(seconds, 1) AS seconds, outcome, reason, attempt, periods,
       CASE WHEN outcome IN ('failed', 'retried') THEN (
           SELECT (SELECT count(*) FROM kodu_cron_error AS later
                   WHERE later.cron_id = run.id AND isfinite(later.cron_date)
                     AND (later.cron_date, later.cron_error_id)
                         >= (error.cron_date, error.cron_error_id))
           FROM kodu_cron_error AS error
           WHERE error.cron_id = run.id AND cron_date BETWEEN started AND ended
           ORDER BY cron_date DESC, cron_error_id DESC LIMIT 1)
       END AS failure
FROM kodu_run AS run WHERE id = $1::int)";

LedgerRow takeRow(const Rows& rows, int row) {
  LedgerRow result;
  result.due = rows.number(row, "due");
  result.started = rows.optionalNumber(row, "started");
  result.ended = rows.number(row, "ended");
  result.seconds = rows.optionalText(row, "seconds");
  result.outcome = rows.text(row, "outcome");
  result.reason = rows.text(row, "reason");
  result.attempt = rows.number(row, "attempt");
  result.periods = rows.number(row, "periods");
  result.failure = rows.optionalNumber(row, "failure");
  return result;
}

}  // namespace

bool hasLedger(Session& session) {
  return session.query(kHasLedger).isTrue(0, "has_ledger");
}

void requireLedger(Session& session) {
  if (!hasLedger(session)) {
    throw Failure(kRefused,
                  "the database has no ledger that this role may read: load sql/ledger.sql as the "
                  "owner of the tables, or connect as another role with --user");
  }
}

std::vector<LedgerRow> readLedger(Session& session, int id, int limit) {
  std::vector<LedgerRow> result;
  if (!hasLedger(session)) {
    return result;
  }
  const Rows rows = session.query(std::string(kRows) + " ORDER BY ledger_id DESC LIMIT $2::int",
                                  {std::to_string(id), std::to_string(limit)});
  for (int row = 0; row < rows.count(); ++row) {
    result.push_back(takeRow(rows, row));
  }
  return result;
}

std::optional<LedgerRow> readLastSkip(Session& session, int id) {
  if (!hasLedger(session)) {
    return std::nullopt;
  }
  const Rows rows =
      session.query(std::string(kRows) +
                        " AND outcome = 'skipped' AND periods > 0 ORDER BY ledger_id DESC LIMIT 1",
                    {std::to_string(id)});
  return rows.count() == 1 ? std::optional(takeRow(rows, 0)) : std::nullopt;
}

std::string outcomeText(const LedgerRow& row) {
  if (row.outcome == "skipped") {
    return fmt::format("{} skipped: {}", row.periods, row.reason);
  }
  return row.attempt > 1 ? fmt::format("{}, attempt {}", row.outcome, row.attempt) : row.outcome;
}

std::string whySkipped(const std::string& reason) {
  static const std::map<std::string, std::string> sentences = {
      {"overrun", "the previous run took too long"},
      {"late", "the previous run began late, because no worker was free"},
      {"interrupted", "the run was interrupted when the daemon ended"},
      {"daemon", "no daemon was running"},
      {"database", "the database was down"},
      {"reload", "the daemon loaded the task during a run, or after it was due"},
      {"paused", "the task was paused"},
      {"changed", "another time or interval had been set"},
      {"moved", "the task was moved to another daemon"},
      {"maintenance", "it was in a maintenance window"},
      {"calendar", "its calendar is invalid, so its interval applied"},
      {"unrecorded", "the ledger was off or could not be written, so the reason is not known"}};
  const auto found = sentences.find(reason);
  return found == sentences.end() ? reason : found->second;
}
