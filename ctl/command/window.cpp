// koductl window: lists the maintenance windows of sql/windows.sql, adds and ends them.

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/session/transaction.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/progress.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr const char* kHasWindows = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_window_status'), 'SELECT'), FALSE)
       AS has_windows)";

constexpr const char* kWindows = R"(
SELECT id, CASE WHEN is_over THEN 'over' WHEN is_open THEN 'open' ELSE 'coming' END AS state,
       reason, made_by, floor(EXTRACT(EPOCH FROM made_at))::bigint AS made,
       floor(EXTRACT(EPOCH FROM begins))::bigint AS begins,
       floor(EXTRACT(EPOCH FROM ends))::bigint AS ends, calendar, zone,
       EXTRACT(EPOCH FROM lasts)::bigint AS length,
       floor(EXTRACT(EPOCH FROM last_end))::bigint AS last_end, spread, concerns, holds,
       json_build_object('tasks', tasks, 'plugins', plugins, 'names', names) AS chosen
FROM kodu_window_status
WHERE ($1::bool OR NOT is_over) AND ($2 = '{}' OR id = ANY ($2::int[]))
ORDER BY is_over, begins, id)";

// The daemon waits for the rows of one call: half a second.
constexpr const char* kSettle =
    "SELECT kodu_window_settle($1::int, released => $2::bool, after => $3::int, most => 2000) AS "
    "last";

void requireWindows(Session& session) {
  if (!session.query(kHasWindows).isTrue(0, "has_windows")) {
    throw Failure(kRefused,
                  "the database has no maintenance windows that this role may read: load "
                  "sql/windows.sql as the owner of the tables, or connect as another role with "
                  "--user");
  }
}

void checkArguments(const Options& options) {
  if (options.windowAction == "end" && options.selection.ids.empty()) {
    throw Failure(kWrongUsage,
                  "window end needs the number of a window, as in koductl window end 3");
  }
  if (options.windowAction == "add" &&
      (options.windowLength.has_value() == options.until.has_value()) && !options.calendar) {
    throw Failure(kWrongUsage,
                  "window add needs an end or a length, as in koductl window add --all --for 2h "
                  "--reason 'new disks'");
  }
}

/// Texts as a literal of an array.
std::string arrayOf(const std::vector<std::string>& texts) {
  std::string literal;
  for (const std::string& text : texts) {
    literal += literal.empty() ? "\"" : ",\"";
    for (const char c : text) {
      literal += c == '"' || c == '\\' ? "\\" : "";
      literal += c;
    }
    literal += '"';
  }
  return "{" + literal + "}";
}

/// Moves the tasks' times, many in several transactions.
void settle(Session& session, int window, bool isReleased) {
  const long tasks =
      session
          .query(
              "SELECT count(*) AS tasks FROM kodu_cron_plugin WHERE $1::int = ANY (cron_windows)",
              {std::to_string(window)})
          .number(0, "tasks");
  constexpr long kAtOnce = 2000;
  Progress progress(tasks, "tasks");
  std::optional<long> last = -1;
  while (last) {
    last =
        session
            .query(kSettle, {std::to_string(window), isReleased ? "t" : "f", std::to_string(*last)})
            .optionalNumber(0, "last");
    progress.advance(kAtOnce);
  }
}

int add(Session& session, const Options& options) {
  Call call("kodu_window_add");
  call.with("reason", "text", options.reason.value_or(""))
      .with("begins", "timestamptz",
            momentOf(session, options.windowBegin, MomentRule::kNextOrDuration))
      .with("ends", "timestamptz", momentOf(session, options.until, MomentRule::kNextOrDuration))
      .with("lasts", "interval", options.windowLength)
      .with("tasks", "int[]", fmt::format("{{{}}}", fmt::join(options.selection.ids, ",")))
      .with("plugins", "text[]", arrayOf(options.windowPlugins))
      .with("names", "text[]", options.isAll ? std::string("{*}") : arrayOf(options.windowNames))
      .with("spread", "interval", options.windowSpread)
      .with("settle", "boolean", "f");
  if (options.calendar) {
    call.with("at", "text", options.calendar).with("zone", "text", zoneName());
  }
  return static_cast<int>(call.run(session).number(0, "result"));
}

void end(Session& session, const Options& options, int window) {
  session.query("SELECT kodu_window_end($1::int, once => $2::bool, settle => FALSE)",
                {std::to_string(window), options.isOnce ? "t" : "f"});
}

Rows readWindows(Session& session, bool withAll, const std::string& ids) {
  return session.query(kWindows, {withAll ? "t" : "f", ids});
}

/// "tasks 7, 8; plugin check_disk; name web*".
std::string chosenText(const Json::Value& chosen) {
  std::string text;
  for (const auto& [member, noun] :
       {std::pair{"tasks", "task"}, std::pair{"plugins", "plugin"}, std::pair{"names", "name"}}) {
    std::string list;
    for (const Json::Value& item : chosen[member]) {
      list += (list.empty() ? "" : ", ") + item.asString();
    }
    if (!list.empty()) {
      text += fmt::format("{}{} {}", text.empty() ? "" : "; ", noun, list);
    }
  }
  return text;
}

Json::Value chosenOf(const Rows& windows, int row) {
  Json::Value chosen;
  std::istringstream text(windows.text(row, "chosen"));
  std::string error;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &chosen, &error)) {
    throw Failure(kNoDatabase, "the database returned no JSON: " + error);
  }
  return chosen;
}

std::string timeOrDash(const std::optional<long>& time) {
  return time ? timeText(*time) : "-";
}

void printTable(const Rows& windows) {
  if (windows.count() == 0) {
    print("There are no windows.\n");
    return;
  }
  constexpr auto kRight = Table::Align::kRight;
  Table table({{"ID", kRight},
               {"STATE"},
               {"BEGINS (" + zoneName() + ")"},
               {"ENDS"},
               {"TASKS", kRight},
               {"HELD", kRight},
               {"OF"},
               {"BY"},
               {"REASON"}});
  for (int row = 0; row < windows.count(); ++row) {
    const std::string calendar = windows.text(row, "calendar");
    table.add({windows.text(row, "id"), windows.text(row, "state"),
               timeOrDash(windows.optionalNumber(row, "begins")),
               timeOrDash(windows.optionalNumber(row, "ends")),
               grouped(windows.number(row, "concerns")), grouped(windows.number(row, "holds")),
               oneLine(chosenText(chosenOf(windows, row))), oneLine(windows.text(row, "made_by")),
               oneLine(windows.text(row, "reason") +
                       (calendar.empty() ? ""
                                         : fmt::format(" (recurs at {} in {})", calendar,
                                                       windows.text(row, "zone"))))});
  }
  table.print();
}

void printAsJson(const Options& options, const Rows& windows) {
  Json::Value json;
  json["dry_run"] = options.isDryRun;
  json["windows"] = Json::Value(Json::arrayValue);
  for (int row = 0; row < windows.count(); ++row) {
    Json::Value window = chosenOf(windows, row);
    window["id"] = Json::Int64{windows.number(row, "id")};
    for (const char* column : {"state", "reason"}) {
      window[column] = windows.text(row, column);
    }
    window["by"] = windows.text(row, "made_by");
    for (const char* column : {"made", "begins", "ends", "last_end"}) {
      window[column] = jsonTime(windows.optionalNumber(row, column));
    }
    for (const char* column : {"calendar", "zone"}) {
      window[column] = jsonText(windows.optionalText(row, column));
    }
    window["lasts_seconds"] = jsonNumber(windows.optionalNumber(row, "length"));
    window["spread_seconds"] = Json::Int64{windows.number(row, "spread")};
    window["concerns"] = Json::Int64{windows.number(row, "concerns")};
    window["holds"] = Json::Int64{windows.number(row, "holds")};
    json["windows"].append(window);
  }
  printJson(json);
}

void printResult(const Options& options, const std::string& sentence, const Rows& windows) {
  if (options.asJson) {
    printAsJson(options, windows);
    return;
  }
  print("{}", sentence);
  printTable(windows);
}

int runAdd(Session& session, const Options& options) {
  Transaction transaction(session, kEndWithoutKoductl);
  const int window = add(session, options);
  if (!options.isDryRun) {
    transaction.commit();
    settle(session, window, false);
  }
  printResult(options,
              options.isDryRun ? std::string("would add this window; nothing was changed\n")
                               : fmt::format("added window {}\n", window),
              readWindows(session, false, fmt::format("{{{}}}", window)));
  return kDone;
}

int runEnd(Session& session, const Options& options) {
  const std::vector<int>& ids = options.selection.ids;
  Call("kodu_window_end").requireRight(session);
  Transaction transaction(session, kEndWithoutKoductl);
  for (const int window : ids) {
    end(session, options, window);
  }
  if (!options.isDryRun) {
    transaction.commit();
    for (const int window : ids) {
      settle(session, window, true);
    }
  }
  if (options.asJson) {
    printAsJson(options, readWindows(session, true, "{}"));
  } else {
    print("{} {}{}\n", options.isDryRun ? "would end" : "ended",
          ids.size() == 1 ? fmt::format("window {}", ids.front())
                          : counted(static_cast<long>(ids.size()), "window"),
          options.isOnce ? " for this time" : "");
  }
  return kDone;
}

}  // namespace

int runWindow(const Options& options) {
  checkArguments(options);
  Session session(options);
  requireWindows(session);
  if (options.windowAction == "add") {
    return runAdd(session, options);
  }
  if (options.windowAction == "end") {
    return runEnd(session, options);
  }
  session.makeReadOnly();
  printResult(options, "", readWindows(session, options.isAll, "{}"));
  return kDone;
}
