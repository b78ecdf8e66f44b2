#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "ctl/task/archive.h"
#include "ctl/task/ledger.h"

/// A row of the ledger, or a failed run that the ledger does not contain: one that is older than
/// what it keeps.
struct RunEntry {
  std::optional<LedgerRow> row;
  std::optional<FailedRun> failure;  // its output
  long number = 0;                   // of the failure, for koductl output

  long time() const { return row ? row->ended : failure->time; }
  std::string outcome() const { return row ? outcomeText(*row) : "failed"; }
};

/// Both lists of a task as one, the latest first, at most `limit` entries.
std::vector<RunEntry> mergeRuns(const std::vector<LedgerRow>& rows,
                                const std::vector<FailedRun>& failures, int limit);

/// The entries as a JSON array.
Json::Value toJson(const std::vector<RunEntry>& entries);

/// The coming times of a task that is not being deleted, from its next one on: seconds since the
/// epoch.
std::vector<long> readComingRuns(Session& session, int id, int count);
