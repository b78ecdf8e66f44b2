#pragma once

#include <json/json.h>

struct Plan;

/// Prints each change: a line with its sign, key and task, then its settings, old and new.
void printChanges(const Plan& plan);

/// Prints "2 tasks added, 1 changed, 0 deleted, 9 unchanged", or what would be.
void printSummary(const Plan& plan, bool isApplied);

/// All of it as JSON.
Json::Value toJson(const Plan& plan, bool isApplied);
