// koductl stagger: spreads tasks over their interval.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/terminal/chart.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// What a stagger proposes.
struct Plan {
  long tasks = 0;
  long busiestBefore = 0, busiestAfter = 0;  // runs within one second
  struct Move {
    std::string id, name, every, nextRun, proposed;
  };
  std::vector<Move> moves;
  /// The busiest second of each minute of the next hour, as far as the tasks here make it.
  std::vector<long> before, after;
};

constexpr long kMinute = 60;
constexpr long kHour = 60 * kMinute;
constexpr int kChartRows = 4;

/// The runs of each second of the next hour.
class Load {
 public:
  /// `time`: of the server, in seconds since the epoch.
  explicit Load(long time) : now(time) {}

  /// A task that is due at `first`, a time of the database, and then every so many seconds.
  void add(const std::string& first, long every) {
    const long ahead = utcTime(first).value_or(now) - now;
    const long begin = ahead < 0 ? (ahead % every + every) % every : ahead;
    for (long second = begin; second < kHour; second += every) {
      ++runs[static_cast<std::size_t>(second)];
    }
  }
  /// The busiest second of each minute.
  std::vector<long> minutes() const {
    return compressed(runs, static_cast<std::size_t>(kHour / kMinute));
  }

 private:
  const long now;
  std::vector<long> runs = std::vector<long>(static_cast<std::size_t>(kHour), 0);
};

/// Of an interval as the database prints it: "1 day 02:00:00"; at least 1.
long secondsOf(const std::string& interval) {
  long days = 0;
  long hours = 0;
  long minutes = 0;
  long seconds = 0;
  const auto word = interval.find("day");
  if (word != std::string::npos) {
    days = std::strtol(interval.c_str(), nullptr, 10);
  }
  const auto colon = interval.find(':');
  if (colon != std::string::npos) {
    const auto begin = interval.rfind(' ', colon);
    const std::string time = interval.substr(begin == std::string::npos ? 0 : begin + 1);
    std::sscanf(time.c_str(), "%ld:%ld:%ld", &hours, &minutes, &seconds);  // NOLINT(cert-err34-c)
  }
  return std::max(1L, days * 86400 + hours * kHour + minutes * kMinute + seconds);
}

Plan readPlan(const Options& options, Session& session) {
  session.query("SET client_min_messages = warning");  // the notice would repeat the plan
  const Rows rows = Call("kodu_stagger")
                        .with("dry_run", "boolean", options.apply ? "false" : "true")
                        .with("longest", "interval", options.longest)
                        .run(session);
  Plan plan;
  plan.tasks = rows.count();
  const long now = serverTime(session);
  Load before(now);
  Load after(now);
  for (int row = 0; row < rows.count(); ++row) {
    const long every = secondsOf(rows.text(row, "interval"));
    before.add(rows.text(row, "next_run"), every);
    after.add(rows.text(row, "proposed"), every);
    plan.busiestBefore = rows.number(row, "busiest_before");
    plan.busiestAfter = rows.number(row, "busiest_after");
    if (rows.text(row, "proposed") != rows.text(row, "next_run")) {
      plan.moves.push_back({rows.text(row, "id"), rows.text(row, "name"),
                            rows.text(row, "interval"), rows.text(row, "next_run"),
                            rows.text(row, "proposed")});
    }
  }
  plan.before = before.minutes();
  plan.after = after.minutes();
  return plan;
}

/// Both with one scale.
void printChart(const Plan& plan) {
  const long top = std::max({1L, *std::max_element(plan.before.begin(), plan.before.end()),
                             *std::max_element(plan.after.begin(), plan.after.end())});
  for (const auto& [title, load] : {std::pair("BEFORE", plan.before), {"AFTER", plan.after}}) {
    print("BUSIEST SECOND OF EACH MINUTE, {}\n", title);
    for (const std::string& line : chartLines(load, kChartRows, top)) {
      print("{}\n", line);
    }
  }
  print("{}\n\n", chartScale("now", "in 1h", plan.before.size(), top));
}

void printPlan(const Plan& plan, bool isApplied) {
  Table table({{"ID", Table::Align::kRight},
               {"NAME"},
               {"EVERY"},
               {"NEXT RUN (" + zoneName() + ")"},
               {"PROPOSED"}});
  for (const Plan::Move& move : plan.moves) {
    table.add({move.id, move.name, move.every, localText(move.nextRun), localText(move.proposed)});
  }
  if (!plan.moves.empty()) {
    table.print();
  }
  if (isTerminal() && plan.tasks > 0) {
    print("\n");
    printChart(plan);
  }
  print("{} of {} {}; busiest second: {} before, {} after\n", plan.moves.size(),
        counted(plan.tasks, "task"), isApplied ? "moved" : "to be moved",
        counted(plan.busiestBefore, "run"), plan.busiestAfter);
  if (!isApplied && !plan.moves.empty()) {
    print("Nothing has been changed; use --apply to set these times.\n");
  }
}

Json::Value toJson(const Plan& plan, bool isApplied) {
  Json::Value json;
  json["applied"] = isApplied;
  json["busiest_before"] = Json::Int64{plan.busiestBefore};
  json["busiest_after"] = Json::Int64{plan.busiestAfter};
  json["moves"] = Json::Value(Json::arrayValue);
  for (const Plan::Move& move : plan.moves) {
    Json::Value entry;
    entry["id"] = std::stoi(move.id);
    entry["name"] = move.name;
    entry["every"] = move.every;
    entry["next_run"] = jsonMoment(move.nextRun);
    entry["proposed"] = jsonMoment(move.proposed);
    json["moves"].append(entry);
  }
  return json;
}

}  // namespace

int runStagger(const Options& options) {
  Session session(options);
  const Plan plan = readPlan(options, session);
  if (options.asJson) {
    printJson(toJson(plan, options.apply));
  } else {
    printPlan(plan, options.apply);
  }
  return kDone;
}
