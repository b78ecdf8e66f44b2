// koductl repair: before a start of the daemon, tells the runs as failed that its last life left
// unfinished.

#include <fmt/format.h>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/schemaSql.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

void report(const Options& options, bool isConnected, long runs) {
  if (options.asJson) {
    Json::Value json;
    json["daemon_connected"] = isConnected;
    json["repaired"] = Json::Int64{runs};
    printJson(json);
  } else if (isConnected) {
    print("a daemon is connected to the database: nothing was changed\n");
  } else {
    print("{} left unfinished{}\n", runs == 0 ? "no run was" : counted(runs, "run"),
          runs == 0   ? ""
          : runs == 1 ? ": it counts as FAILED now"
                      : ": they count as FAILED now");
  }
}

}  // namespace

int runRepair(const Options& options) {
  Options own = options;
  own.applicationName = "kodu_repair";
  // Nothing of the tables' version matters here, and the daemon is about to start.
  Session session(own, SchemaRule::kAnyVersion);
  const bool isConnected = isDaemonConnected(session);
  const long runs = session.query(repairSql).affected();
  report(options, isConnected, runs);
  return kDone;
}
