// koductl ledger: shows the state of the ledger, or changes its settings.

#include "ctl/task/ledger.h"

#include <fmt/format.h>

#include <string>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kStatus = R"(
SELECT is_on, keep_days, rows, bytes, summary_bytes, unwritten, unrecorded,
       date_trunc('second', switched_on) AS switched_on, date_trunc('second', oldest) AS oldest,
       date_trunc('second', summarised_at) AS summarised_at,
       date_trunc('second', pruned_at) AS pruned_at
FROM kodu_ledger_status())";

std::string sizeText(long bytes) {
  constexpr double kMega = 1e6;
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / kMega);
}

/// A time, or "never".
std::string momentText(const Rows& status, const char* column) {
  const auto time = utcTime(status.text(0, column));
  return time ? zonedTime(*time) : "never";
}

void printForPeople(const Rows& status) {
  print("The ledger is {}; it was last switched on at {}.\n",
        status.isTrue(0, "is_on") ? "on" : "off", momentText(status, "switched_on"));
  print("It keeps runs for {}: about {} from {} on, {}. Its summaries have {}.\n",
        counted(status.number(0, "keep_days"), "day"), counted(status.number(0, "rows"), "row"),
        momentText(status, "oldest"), sizeText(status.number(0, "bytes")),
        sizeText(status.number(0, "summary_bytes")));
  print("Rows that could not be written: {}, and {} more that later rows account for.\n",
        status.number(0, "unwritten"), status.number(0, "unrecorded"));
  print("Last summarised: {}. Last pruned: {}.\n", momentText(status, "summarised_at"),
        momentText(status, "pruned_at"));
}

void printAsJson(const Rows& status) {
  Json::Value json;
  json["is_on"] = status.isTrue(0, "is_on");
  for (const char* column :
       {"keep_days", "rows", "bytes", "summary_bytes", "unwritten", "unrecorded"}) {
    json[column] = Json::Int64{status.number(0, column)};
  }
  for (const char* column : {"switched_on", "oldest", "summarised_at", "pruned_at"}) {
    json[column] = jsonMoment(status.text(0, column));
  }
  printJson(json);
}

void change(Session& session, const Options& options) {
  if (options.ledgerAction == "keep") {
    if (!options.ledgerDays) {
      throw Failure(kWrongUsage, "keep needs a number of days, as koductl ledger keep 3");
    }
    Call("kodu_ledger_keep").with("days", options.ledgerDays).run(session);
    return;
  }
  if (options.ledgerDays) {
    throw Failure(kWrongUsage, "only keep has a number of days");
  }
  if (options.ledgerAction != "status") {
    Call("kodu_ledger_" + options.ledgerAction).run(session);
  }
}

}  // namespace

int runLedger(const Options& options) {
  Session session(options);
  requireLedger(session);
  change(session, options);
  const Rows status = session.query(kStatus);
  if (options.asJson) {
    printAsJson(status);
  } else {
    printForPeople(status);
  }
  return kDone;
}
