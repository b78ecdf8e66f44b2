#pragma once

#include <optional>
#include <string>
#include <vector>

class Session;

/// A row of the ledger: an attempt of a run, or a sequence of periods without a run. Times are
/// seconds since the epoch.
struct LedgerRow {
  long due = 0;    // of the run, or of the first skipped period
  long ended = 0;  // of the attempt; of skipped periods, when the row was written
  std::optional<long> started;
  std::optional<std::string> seconds;  // the duration of the attempt, with a decimal
  std::string outcome;                 // ok, failed, retried, interrupted or skipped
  std::string reason;                  // of skipped periods, as "overrun"; else ""
  long attempt = 0, periods = 0;
  std::optional<long> failure;  // the attempt's number among the failed runs, 1 is the latest
};

/// True when the database has a ledger that this session may read. It may be switched off.
bool hasLedger(Session& session);

/// Throws Failure (kRefused) when the database has none.
void requireLedger(Session& session);

/// The latest rows of a task, the latest first, at most `limit`; none where there is no ledger.
std::vector<LedgerRow> readLedger(Session& session, int id, int limit);

/// The latest sequence of periods without a run; nothing when none was skipped.
std::optional<LedgerRow> readLastSkip(Session& session, int id);

/// "ok", "failed, attempt 2" or "3 skipped: overrun".
std::string outcomeText(const LedgerRow& row);

/// Why periods were skipped, as the end of a sentence: "the previous run took too long".
std::string whySkipped(const std::string& reason);
