#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

class Session;

/// What tasks a live table is about.
enum class TopView { kAll, kLate, kRunning, kFailing, kLatest };

/// By what it is sorted. kUrgency: late, running, failing and then the latest.
enum class TopSort { kUrgency, kId, kName, kDue, kLast };

/// What a live table asks for.
struct TopQuery {
  TopView view = TopView::kAll;
  TopSort sort = TopSort::kUrgency;
  bool isReversed = false;
  std::string filter;  // a part of the name, in any case of letters; "": all
  int limit = 50;
};

/// A task in a live table; times in seconds since the epoch, periods in seconds.
struct TopRow {
  int id = 0;
  std::string name, status;  // "-" before the first run
  bool isLate = false, isRunning = false, awaitsRetry = false, isFailing = false, isPaused = false;
  long dueSeconds = 0;  // since it was due
  std::optional<long> due, lastDue, failingSince;
  long failuresDay = 0;
};

/// How many tasks there are; the rest by what they are doing.
struct TopCounts {
  long tasks = 0, late = 0, running = 0, failed = 0;
};

/// The tasks in the order of the query. Costs about a scan of the tasks. The session is the
/// caller's. Throws Failure.
std::vector<TopRow> readTop(Session& session, const TopQuery& query);

/// The same of the counts, for all tasks that the daemon runs.
TopCounts readTopCounts(Session& session);

/// "late", "running", "retry", "failing", "paused", or the status.
std::string stateWord(const TopRow& row);

Json::Value toJson(const TopCounts& counts, const std::vector<TopRow>& rows);
