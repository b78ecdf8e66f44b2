// koductl events: what has changed of the tasks, or changes from now on.

#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/command/deadEvents.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/task/ledger.h"
#include "ctl/terminal/jsonList.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kHasEvents = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_event'), 'SELECT'), FALSE)
       AS has_events)";

// Transactions below have ended: no event is added to them.
constexpr const char* kHorizon = "SELECT pg_snapshot_xmin(pg_current_snapshot())::text AS horizon";

constexpr const char* kFields = R"(
SELECT "position", floor(EXTRACT(EPOCH FROM (event ->> 'at')::timestamptz))::bigint,
       event ->> 'event', (event ->> 'task')::bigint, event ->> 'name', event ->> 'reason',
       (event ->> 'periods')::bigint, event::text FROM )";

constexpr const char* kOfReader = "kodu_events($1, 1000)";

constexpr const char* kBetween = R"(
(SELECT '' AS "position", json AS event FROM kodu_event
 WHERE xact >= $1::bigint AND xact < $2::bigint ORDER BY xact, ledger_id) AS next)";

constexpr const char* kSince = R"(
(SELECT '' AS "position", json AS event FROM kodu_event
 WHERE at >= COALESCE(NULLIF($1, '')::timestamptz, now() - interval '1 day') AT TIME ZONE 'UTC'
   AND xact < $2::bigint ORDER BY xact, ledger_id) AS next)";

void requireEvents(Session& session) {
  if (!session.query(kHasEvents).isTrue(0, "has_events")) {
    throw Failure(kRefused,
                  "the database has no events that this role may read: load sql/events.sql as the "
                  "owner of the tables, or connect as another role with --user");
  }
}

/// Prints events, those of a reader or all.
class EventPrinter {
 public:
  explicit EventPrinter(const Options& given) : options(given) {}

  /// Those that there are.
  void printPresent(Session& session) {
    if (!options.reader.empty()) {
      while (printOfReader(session) > 0) {
      }
    } else if (!options.follow || options.since) {
      reached = horizonOf(session);
      const std::string since =
          momentOf(session, options.since, MomentRule::kLastOrDuration).value_or("");
      printEach(session, kSince, {since, reached});
    } else {
      reached = horizonOf(session);
    }
    if (options.asJson && !options.follow) {
      list.end();
    }
  }

  /// Those that have been added since.
  void printNew(Session& session) {
    if (!options.reader.empty()) {
      printOfReader(session);
      return;
    }
    const std::string horizon = horizonOf(session);
    printEach(session, kBetween, {reached, horizon});
    reached = horizon;
  }

 private:
  static std::string horizonOf(Session& session) {
    return session.query(kHorizon).text(0, "horizon");
  }

  /// They are done once they are written. Returns their number.
  long printOfReader(Session& session) {
    const long count = printEach(session, kOfReader, {options.reader});
    if (count > 0) {
      flushOutput();
      session.query("SELECT kodu_events_done($1, $2)", {options.reader, lastPosition});
    }
    return count;
  }

  long printEach(Session& session, const char* source, const std::vector<std::string>& parameters) {
    long count = 0;
    session.forEachRow(std::string(kFields) + source, parameters, [&](Fields& fields) {
      printOne(fields);
      ++count;
    });
    return count;
  }

  void printOne(Fields& fields) {
    lastPosition = fields.text();
    const long at = fields.number();
    const std::string event = fields.text();
    const long id = fields.number();
    const auto name = fields.optionalText();
    const std::string reason = fields.text();
    const long periods = fields.number();
    const std::string json = escapedJson(fields.text());
    if (options.asJson && options.follow) {
      print("{}\n", Styled(json));
    } else if (options.asJson) {
      list.add(json);
    } else {
      print(
          "{}  {:<11}  {:>7}  {}{}\n", timeText(at), event, id, oneLine(name.value_or("(deleted)")),
          reason.empty() ? ""
                         : fmt::format("  {}: {}", counted(periods, "period"), whySkipped(reason)));
    }
  }

  const Options& options;
  JsonList list;
  std::string reached;  // transactions below have been printed
  std::string lastPosition;
};

/// Prints what is added until Ctrl-C, in a new session when one is lost.
[[noreturn]] void follow(EventPrinter& printer, std::optional<Session>& session,
                         const Options& options) {
  bool isSaid = false;
  for (;;) {
    try {
      if (!session) {
        session.emplace(options);
      }
      printer.printNew(*session);
      flushOutput();
      isSaid = false;
    } catch (const Failure& e) {
      session.reset();
      if (!isSaid) {
        printError("koductl: {}\n", e.what());
      }
      isSaid = true;
    }
    sleep(1);
  }
}

}  // namespace

int runEvents(const Options& options) {
  if (options.onlyDead) {
    return printDeadEvents(options);
  }
  if (!options.redelivery.empty()) {
    return redeliverEvents(options);
  }
  if (!options.reader.empty() && options.since) {
    throw Failure(kWrongUsage,
                  "a reader continues where it stopped: give --reader or --since, not both");
  }
  std::optional<Session> session;
  session.emplace(options);
  requireEvents(*session);
  EventPrinter printer(options);
  if (options.follow) {
    std::signal(SIGINT, [](int) { _exit(0); });
    std::signal(SIGTERM, [](int) { _exit(0); });
  }
  printer.printPresent(*session);
  flushOutput();
  if (options.follow) {
    follow(printer, session, options);
  }
  return kDone;
}
