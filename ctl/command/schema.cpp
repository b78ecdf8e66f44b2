// koductl schema: shows or upgrades the version of the database's tables.

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/schemaSql.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/session/session.h"
#include "ctl/session/upgrade.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

enum SchemaExit { kCurrent = 0, kBehind = 1, kNewer = 2 };

/// A migration that is applied or pending.
struct Step {
  int version = 0;
  std::string title, appliedAt, appliedBy;  // the last two empty: pending
};

std::vector<Step> readSteps(Session& session, const SchemaState& state) {
  std::vector<Step> steps;
  if (state.version > 0) {
    const Rows rows = session.query(
        "SELECT version, title, date_trunc('second', applied_at) AS applied_at, applied_by"
        " FROM kodu_schema_version ORDER BY version");
    for (int row = 0; row < rows.count(); ++row) {
      steps.push_back({static_cast<int>(rows.number(row, "version")), rows.text(row, "title"),
                       rows.text(row, "applied_at"), rows.text(row, "applied_by")});
    }
  }
  for (const Migration& migration : migrations()) {
    if (migration.version > state.version) {
      steps.push_back({migration.version, migration.title, "", ""});
    }
  }
  return steps;
}

const char* wordOf(const SchemaState& state) {
  if (state.isNewer()) {
    return "newer";
  }
  return state.isBehind() ? "behind" : "current";
}

void printForPeople(const SchemaState& state, const std::vector<Step>& steps) {
  Table table(
      {{"VERSION", Table::Align::kRight}, {"TITLE"}, {"APPLIED (" + zoneName() + ")"}, {"BY"}});
  for (const Step& step : steps) {
    table.add({std::to_string(step.version), step.title,
               step.appliedAt.empty() ? "pending" : localText(step.appliedAt), step.appliedBy});
  }
  table.print();
  print("\nThe database has version {}, this koductl knows version {}: {}.\n", state.version,
        knownSchemaVersion(), wordOf(state));
  if (state.isBehind()) {
    print("Run koductl --user OWNER schema upgrade.\n");
  }
}

void printAsJson(const SchemaState& state, const std::vector<Step>& steps) {
  Json::Value json;
  json["version"] = state.version;
  json["known_version"] = knownSchemaVersion();
  json["state"] = wordOf(state);
  json["migrations"] = Json::Value(Json::arrayValue);
  for (const Step& step : steps) {
    Json::Value entry;
    entry["version"] = step.version;
    entry["title"] = step.title;
    entry["applied_at"] = jsonMoment(step.appliedAt);
    entry["applied_by"] = step.appliedBy.empty() ? Json::Value() : Json::Value(step.appliedBy);
    json["migrations"].append(entry);
  }
  printJson(json);
}

int showState(const Options& options, Session& session) {
  const SchemaState state = readSchemaState(session);
  if (!state.tablesExist) {
    throw Failure(kNotFound,
                  "this database has no tables of koducron: load sql/schema.sql as its owner");
  }
  if (!state.isReadable) {
    throw Failure(kNotPermitted, "this role may not read kodu_schema_version: use --user OWNER");
  }
  const std::vector<Step> steps = readSteps(session, state);
  if (options.asJson) {
    printAsJson(state, steps);
  } else {
    printForPeople(state, steps);
  }
  return state.isNewer() ? kNewer : state.isBehind() ? kBehind : kCurrent;
}

void printUpgradeAsJson(const Options& options, int before) {
  Json::Value json;
  json["dry_run"] = options.isDryRun;
  json["version"] = knownSchemaVersion();
  json["applied"] = Json::Value(Json::arrayValue);
  for (const Migration& migration : migrations()) {
    if (migration.version > before) {
      Json::Value entry;
      entry["version"] = migration.version;
      entry["title"] = migration.title;
      json["applied"].append(entry);
    }
  }
  printJson(json);
}

int upgrade(const Options& options, Session& session) {
  const int before =
      upgradeSchema(session, {options.isDryRun, std::chrono::seconds(options.waitSeconds)});
  if (options.asJson) {
    printUpgradeAsJson(options, before);
    return kDone;
  }
  for (const Migration& migration : migrations()) {
    if (migration.version > before) {
      print("{} {}: {}\n", options.isDryRun ? "would apply" : "applied", migration.version,
            migration.title);
    }
  }
  print("{}views, functions and triggers are those of version {}\n",
        options.isDryRun ? "nothing was changed; after an upgrade " : "", knownSchemaVersion());
  return kDone;
}

}  // namespace

int runSchema(const Options& options) {
  Session session(options, SchemaRule::kAnyVersion);
  return options.schemaAction.empty() ? showState(options, session) : upgrade(options, session);
}
