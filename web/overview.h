#pragma once

#include <json/json.h>

class Session;

/// What the overview shows of the tasks, as one reading of all of them tells.
struct TaskCounts {
  Json::Value totals;    // tasks, late, failing, running, paused, deleting
  Json::Value failures;  // by plugin, the ten with the most
  Json::Value due;       // next runs of a day by the quarter of an hour
  long late = 0, busy = 0;
  long now = 0;  // seconds since the epoch
};

/// Takes some seconds for a million tasks. Throws as Session::query.
TaskCounts readTaskCounts(Session& session);

/// Runs of the last day by the hour, as far as the ledger is summarised: null for other hours.
Json::Value readDay(Session& session);
