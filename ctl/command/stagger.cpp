// koductl stagger: spreads tasks over their interval.

#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
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
};

Plan readPlan(const Options& options, Session& session) {
  session.query("SET client_min_messages = warning");  // the notice would repeat the plan
  const Rows rows = Call("kodu_stagger")
                        .with("dry_run", "boolean", options.apply ? "false" : "true")
                        .with("longest", "interval", options.longest)
                        .run(session);
  Plan plan;
  plan.tasks = rows.count();
  for (int row = 0; row < rows.count(); ++row) {
    plan.busiestBefore = rows.number(row, "busiest_before");
    plan.busiestAfter = rows.number(row, "busiest_after");
    if (rows.text(row, "proposed") != rows.text(row, "next_run")) {
      plan.moves.push_back({rows.text(row, "id"), rows.text(row, "name"),
                            rows.text(row, "interval"), rows.text(row, "next_run"),
                            rows.text(row, "proposed")});
    }
  }
  return plan;
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
